#include <Z/ZException.h>
#include <Z/ZStanzaFileProperties.h>
#include <iostream>

int main() {
    try {
        ZStanzaFileProperties file("service.conf", 1);  // 1: comments are kept
        std::cout << "port " << file.getIntegerValue("listener", "port", 1, 0) << "\n";
        file.addValue("listener", "address", "::1", 0);     // one more value
        file.setValue("mail", "password", "swordfish", 1);  // hidden, in service.conf.obf
        file.store(nullptr);
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
