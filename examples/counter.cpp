// counter.cpp: several processes count in one file, and none of them reads it more often than it
// has to: an observer tells each when another one has counted.
//
//   counter FOLDER TIMES      adds TIMES to the number in FOLDER/number
//
// Prints how often it was told, and the number that it wrote last.
#include <Z/ZExceptionText.h>
#include <Z/ZFileLock.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

/// The number in a file, as this process knows it.
class Counter : public ZObserverInterface {
public:
    explicit Counter(const std::string& folder)
        : path_(folder + "/number"), lock_("counter", folder.c_str()), number_(0), told_(0) {
        lock_.addObserver(this);
        // The first grant counts as caught up, so what the file holds by now is read here.
        lock_.readLock();
        ZStackReadWriteLock scope(lock_, 0);
        load();
    }

    void add() {
        // Whatever others have changed has been told before this returns.
        lock_.writeLock();
        ZStackReadWriteLock scope(lock_, 1);
        ++number_;
        store();
    }

    /// Another process has changed the number. Nobody else is in: the lock is held to write.
    void update(ZObservableInterface*, const ZObservedParm&) override {
        ++told_;
        load();
    }

    long number() const { return number_; }
    int told() const { return told_; }

private:
    void load() {
        if (FILE* file = fopen(path_.c_str(), "r")) {
            if (fscanf(file, "%ld", &number_) != 1)
                number_ = 0;
            fclose(file);
        }
    }

    void store() {
        FILE* file = fopen(path_.c_str(), "w");
        if (file == nullptr || fprintf(file, "%ld\n", number_) < 0 || fclose(file) != 0)
            throw std::runtime_error("can't write " + path_);
    }

    const std::string path_;
    ZUnixProcessReadWriteFileLock lock_;
    long number_;
    int told_;
};

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: counter FOLDER TIMES\n");
        return 2;
    }
    try {
        Counter counter(argv[1]);
        for (int times = atoi(argv[2]); times > 0; --times)
            counter.add();
        printf("told of %d changes, last wrote %ld\n", counter.told(), counter.number());
        return 0;
    } catch (ZException& failure) {
        failure.dumpException();
        fputc('\n', stderr);
    } catch (const std::exception& failure) {
        fprintf(stderr, "counter: %s\n", failure.what());
    }
    return 1;
}
