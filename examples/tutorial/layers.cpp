#include <Z/ZException.h>
#include <Z/ZLayers.h>
#include <Z/ZPropertiesUpdate.h>
#include <iostream>

int main(int, char** arguments) {
    try {
        ZLayersTerms terms = {};
        terms.size = sizeof terms;
        terms.name = "service";
        terms.prefix = arguments[1];  // without an argument null: the folders of the system
        ZLayers layers(terms);
        layers.setTarget("/etc", "50-local.conf");
        ZPropertiesUpdate update(layers, 10000);
        layers.setValue("log", "level", "debug");
        update.commit();
        for (const char* key : {"level", "file"}) {
            ZLCString value, file;
            int line;
            layers.getValue("log", key, value, 1, nullptr);
            layers.getOrigin("log", key, 0, file, line);
            std::cout << key << " " << value.getChars() << ", line " << line << "\n";
        }
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
