#include <Z/ZException.h>
#include <Z/ZPropertiesUpdate.h>
#include <Z/ZStanzaFileProperties.h>

int main() {
    try {
        ZStanzaFileProperties file(1);
        file.setStoreMode(ZPROP_STORE_SAFE);
        file.setLockWait(10000);
        file.load("service.conf");
        for (int i = 0; i < 10; ++i) {
            ZPropertiesUpdate update(file, 10000);
            const unsigned int jobs = file.getIntegerValue("queue", "jobs", 0, 0);
            file.setIntegerValue("queue", "jobs", jobs + 1);
            update.commit();
        }
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
