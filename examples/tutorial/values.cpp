#include <Z/ZException.h>
#include <Z/ZStanzaFileProperties.h>
#include <iostream>

int main() {
    try {
        ZStanzaFileProperties file("service.conf", 1);
        file.addValue("listener", "address", "::1", 0);

        ZArrayList addresses(4, 1);  // room for four at first; 1: it owns them
        file.getValues("listener", "address", addresses, ZPROP_STRING_LOCAL);
        for (unsigned int i = 0; i < addresses.size(); ++i)
            std::cout << static_cast<const ZLCString*>(addresses.get(i))->getChars() << "\n";

        ZStanzaIterator entry(file, "log");
        while (entry.hasMore()) {
            entry.nextEntry();
            std::cout << entry.entryName() << ": " << entry.entryValue(0) << "\n";
        }
        file.store(nullptr);
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
