#include <Z/ZException.h>
#include <Z/ZStanzaFileProperties.h>

int main() {
    try {
        ZStanzaFileProperties file("service.conf", 1);
        file.setStoreMode(ZPROP_STORE_CHECKED);
        file.setValue("log", "level", "debug");
        file.setIntegerValue("listener", "timeout", 120);
        file.addEntryComment("listener", "timeout", "# two minutes");
        file.deleteKey("listener", "tls");
        file.store(nullptr);
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
