#include <Z/ZDialects.h>
#include <Z/ZException.h>
#include <Z/ZPropertiesUpdate.h>
#include <Z/ZStanzaFileProperties.h>
#include <iostream>

int main() {
    try {
        ZStanzaFileProperties file(1);
        ZLCString preset, pattern;
        if (ZDialects::ofFile("my.cnf", preset, pattern)) {
            ZDialect dialect;
            ZDialects::get(preset.getChars(), dialect);
            file.setDialect(dialect);
        }
        std::cout << preset.getChars() << ", by " << pattern.getChars() << "\n";
        file.load("my.cnf");
        ZPropertiesUpdate update(file, 10000);
        file.setIntegerValue("mysqld", "max_connections", 500);
        file.setBare("mysqld", "skip-networking");
        update.commit();
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
