// tour.cpp: each subsystem of the library once, in the order in which they stand on each other.
// Prints what it finds; works in a folder of its own, which is the argument.
#include <Z/ZAdler32.h>
#include <Z/ZException.h>
#include <Z/ZFileLock.h>
#include <Z/ZFileMap.h>
#include <Z/ZJavaProperties.h>
#include <Z/ZKeyMap.h>
#include <Z/ZLocalHostName.h>
#include <Z/ZMessage.h>
#include <Z/ZObserve.h>
#include <Z/ZReadWriteLock.h>
#include <Z/ZSharedLibrary.h>
#include <Z/ZSqueeze.h>
#include <Z/ZStack.h>
#include <Z/ZStanzaFileProperties.h>
#include <Z/ZString.h>
#include <Z/ZStringTokenizer.h>
#include <Z/ZThreadPool.h>
#include <Z/ZUTF8Converter.h>
#include <Z/zfileinherit.h>

#include <cstdio>
#include <string>

// ---------------------------------------------------------------- frame

// Tells exceptions in its own way, and all else as usual.
class Brief : public ZDefaultMessageService {
public:
    int outputException(const ZZException* exception, char*) const override {
        std::printf("exception %d, %s\n", static_cast<int>(exceptionNumber(*exception)),
                    exceptionName(*exception));
        return 0;
    }
};

static void frame() {
    const Brief brief;
    ZMessageService::setMessageService(&brief);
    try {
        ZInvalidParameterException().throwException(__FILE__, __LINE__);
    } catch (ZException& failure) {
        failure.print();
    }
    ZMessageService::setMessageService(nullptr);
}

// ---------------------------------------------------------------- text

static void text() {
    ZLCString line("  one, two,,three  ");
    line.stripWhiteSpace();
    line.replace("two", "2");
    ZLCString token;
    ZStringTokenizer tokens(line, token, ZLCString(", "));
    while (tokens.hasMore())
        std::printf("[%s]", static_cast<const ZLCString*>(tokens.getNext())->getChars());
    line.format(" %2$s:%1$05d", 42, "answer");
    std::printf("%s\n", line.getChars());

    const ZQELUTF8Converter latin("ISO-8859-1", "/usr/share/i18n");
    ZBuffer utf8;
    latin.convertToUTF8("caf\xE9", utf8);
    std::printf("%s, %u bytes\n", static_cast<const char*>(utf8.getBuffer()),
                static_cast<unsigned int>(utf8.getLength()) - 1);
}

// ---------------------------------------------------------------- containers and buffers

static void containers() {
    ZArrayList list(4, 1);
    for (const char* word : {"pear", "apple", "plum"})
        list.addNoCopy(new ZLCString(word));
    list.sort(*ZSortCompare::defaultSortCompare(), ZSortCompare::sortAscending);
    ZHashKeyMap map(10, 1);
    ZArrayStack stack(4);
    ZListIterator walk(list);
    while (walk.hasMore()) {
        ZObject* word = walk.getNext();
        map.putEntry(word, word);
        stack.push(word);
    }
    const ZLCConstString probe("plum");
    std::printf("%u words, plum %s, last %s\n", map.size(),
                map.getEntry(&probe) == nullptr ? "missing" : "found",
                static_cast<ZLCString*>(stack.pop())->getChars());
}

// ---------------------------------------------------------------- platform services

static void services(const std::string& folder) {
    unsigned char text[1000] = {0}, packed[100], back[1000];
    ZSqueeze squeeze;
    squeeze.setSource(text, sizeof text);
    const unsigned long size = squeeze.squeeze(packed, sizeof packed);
    squeeze.setSource(packed, size);
    const unsigned long expanded = squeeze.unsqueeze(back, sizeof back);
    std::printf("%s packed, %lu back, sum %08lx\n", size < 100 ? "well" : "badly", expanded,
                ZAdler32::adler32(1, text, sizeof text));

    const std::string path = folder + "/mapped";
    std::FILE* file = std::fopen(path.c_str(), "w");
    std::fputs("in memory", file);
    zsetfileinheritance(fileno(file), 0);
    std::fclose(file);
    ZUnixFileMap map(ZLCString(path.c_str()), ZAbstractFileMap::mapRead, 1);
    int error = 0;
    std::printf("%.9s\n", static_cast<const char*>(map.mapfile(&error, 0)));
    map.unmapfile(&error);

    ZSharedLibrary library("libm.so.6");
    library.loadLibrary();
    typedef double (*Function)(double);
    const Function root = reinterpret_cast<Function>(library.resolveSymbol("sqrt"));
    std::printf("root of 49: %g\n", root(49));
    library.unloadLibrary();
    ZLocalHostName::getLocalHostName();  // whatever it is
}

// ---------------------------------------------------------------- locks, threads, processes

// A thread of a pool: adds its number to a sum. Detached and self-deleting, as a pool wants them.
class Adder : public ZThread {
public:
    Adder(int number, ZLock& lock, int& sum)
        : ZThread(1, 1), number_(number), lock_(lock), sum_(sum) {}

protected:
    void run() override {
        ZResourceLock guard(lock_);
        sum_ += number_;
    }

private:
    const int number_;
    ZLock& lock_;
    int& sum_;  // guarded by lock_
};

static void threads() {
    ZLock lock;
    int sum = 0;
    ZThreadPool pool(2, 0);
    for (int i = 1; i <= 10; ++i)
        pool.start(*new Adder(i, lock, sum));
    pool.waitForExit();
    ZResourceLock guard(lock);
    std::printf("sum %d\n", sum);
}

static void locks(const std::string& folder) {
    ZReadWriteLock shared;
    {
        ZStackReadWriteLock scope(shared, 0);
        scope.readLock();
    }
    ZUnixProcessReadWriteFileLock between("tour", folder.c_str());
    between.writeLock();
    between.unlock(1);
    std::printf("change number %lu\n", between.getSequence());
}

// ---------------------------------------------------------------- configuration

class Printer : public ZObserverInterface {
public:
    void update(ZObservableInterface*, const ZObservedParm& parm) override {
        const ZPropertyChanged& change = static_cast<const ZPropertyChanged&>(parm);
        std::printf("changed [%s] %s\n", change.stanza, change.key);
    }
};

static void configuration(const std::string& folder) {
    const std::string path = folder + "/tour.conf";
    Printer printer;
    ZStanzaFileProperties file(1);
    file.addObserver(&printer);
    file.setIntegerValue("listener", "port", 8631);
    file.addStanzaComment("listener", "who may ask");
    file.store(path.c_str());
    ZStanzaFileProperties again(path.c_str(), 1);
    std::printf("port %u\n", again.getIntegerValue("listener", "port", 1, 0));

    ZJavaProperties java;
    java.setValue(ZLCString("greeting"), ZLCString("good: day"));
    const std::string javaPath = folder + "/tour.properties";
    java.store(javaPath.c_str());
    ZJavaProperties read;
    read.load(javaPath.c_str());
    ZLCString value;
    read.getValue(ZLCString("greeting"), value);
    std::printf("greeting %s\n", value.getChars());
}

int main(int count, char** arguments) {
    if (count != 2)
        return 2;
    const std::string folder = arguments[1];
    try {
        frame();
        text();
        containers();
        services(folder);
        threads();
        locks(folder);
        configuration(folder);
    } catch (ZException& failure) {
        failure.print();
        return 1;
    }
}
