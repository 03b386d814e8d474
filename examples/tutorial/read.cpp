#include <Z/ZException.h>
#include <Z/ZStanzaFileProperties.h>
#include <iostream>

int main() {
    try {
        const ZStanzaFileProperties file("service.conf", 1);
        ZLCString level;
        file.getValue("log", "level", level, 0, "info");
        std::cout << "level " << level.getChars() << "\n";
        std::cout << "port " << file.getIntegerValue("listener", "port", 1, 0) << "\n";
        std::cout << "tls " << file.getBooleanValue("listener", "tls", 0, 0) << "\n";
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
