#include <Z/ZException.h>
#include <Z/ZPropertiesWatcher.h>
#include <Z/ZStanzaFileProperties.h>
#include <poll.h>
#include <iostream>

class Teller : public ZObserverInterface {
public:
    void update(ZObservableInterface*, const ZObservedParm& parm) override {
        const ZPropertyChanged& change = static_cast<const ZPropertyChanged&>(parm);
        std::cout << "[" << change.stanza << "] " << (change.key ? change.key : "") << std::endl;
    }
};

int main() {
    try {
        ZStanzaFileProperties file("service.conf", 1);
        Teller teller;
        file.addObserver(&teller);
        ZPropertiesWatcher watcher(file);
        std::cout << "watching" << std::endl;
        while (file.exists("queue", "stop") == 0) {
            struct pollfd ready = {watcher.descriptor(), POLLIN, 0};
            poll(&ready, 1, -1);
            watcher.process();
        }
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
