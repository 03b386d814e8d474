// The dump, UTF-16, the loader, and the small services.
#include "support/Prelude.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>

#include "Z/ZExceptionText.h"
#include "Z/ZLocalHostName.h"
#include "Z/ZSharedLibrary.h"
#include "Z/ZWinRegistry.h"
#include "Z/zfileinherit.h"
#include "Z/zinet_ntop.h"
#include "Z/zinet_pton.h"
#include "Z/zshlib.h"
#include "Z/zutfconvert.h"
#include "Z/zutils.h"
#include "support/Raised.h"
#include "support/Gate.h"
#include "support/RecordingService.h"
#include "support/TempFolder.h"
#include "support/Threads.h"

using std::string;

// ---------------------------------------------------------------- failing system calls

static const char* failingCall = "";

static bool fails(const char* call) {
    if (strcmp(failingCall, call) != 0)
        return false;
    errno = EIO;
    return true;
}

extern "C" int __wrap_gethostname(char* name, size_t size) {
    snprintf(name, size, "this-host");
    return fails("gethostname") ? -1 : 0;
}
extern "C" hostent* __wrap_gethostbyname(const char* name) {
    static string fullName;
    static hostent host = {};
    fullName = string(name) + ".example";
    host.h_name = &fullName[0];
    return fails("gethostbyname") ? nullptr : &host;
}
extern "C" int __real_dlclose(void* handle);
extern "C" int __wrap_dlclose(void* handle) {
    return fails("dlclose") ? 1 : __real_dlclose(handle);
}

namespace {

// ---------------------------------------------------------------- dump

void dump(FILE* f, const string& bytes, const char* title) {
    zhex_dump(f, static_cast<int>(bytes.size()),
              reinterpret_cast<const unsigned char*>(bytes.data()), title);
}

// What `write` writes to the file that it is given.
template <typename Write>
string written(Write write) {
    char* text = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&text, &size);
    write(f);
    fclose(f);
    const string all(text, size);
    free(text);
    return all;
}

string dumpOf(const string& bytes, const char* title) {
    return written([&](FILE* f) { dump(f, bytes, title); });
}

TEST(Dump, RowsAreFilledUp) {
    EXPECT_EQ(dumpOf("", "title"), "\n\ttitle\n\n");
    testing::internal::CaptureStderr();
    zhex_dump(nullptr, -1, nullptr, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n");
    EXPECT_EQ(
        dumpOf("0123456789abcde\x1F\xFD\xFE\x80", "t"),
        "\n\tt\n"
        "\n0000   30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 1f  *0123456789abcde.*"
        "\n0010   fd fe 80                                          *\xFD.\x80             *\n");
}

TEST(Dump, ThoseOfSeveralThreadsStandOneAfterTheOther) {
    const string bytes[] = {string(70, 'a'), string(70, 'b')};
    const string dumps[] = {dumpOf(bytes[0], "title"), dumpOf(bytes[1], "title")};
    const string text = written([&](FILE* f) {
        Gate begun;
        inFourThreads([&] {
            begun.open(), begun.reach(4);  // side by side
            for (int times = 0; times < 250; ++times)
                dump(f, bytes[times % 2], "title");
        });
    });
    const size_t size = dumps[0].size();
    ASSERT_EQ(text.size(), 1000 * size);
    for (size_t at = 0; at < text.size(); at += size)
        ASSERT_EQ(text.substr(at, size), dumps[text.compare(at, size, dumps[1]) == 0]);
}

// ---------------------------------------------------------------- UTF-16

TEST(Utf16, EveryRoomGivesWholeCharactersAndTheRightPlace) {
    const struct {
        std::vector<unsigned short> units;
        std::vector<string> characters;
    } kCases[] = {
        {{}, {}},
        {{0, 0x7F, 0x80, 0x7FF, 0x800, 0xFFFF},
         {string(1, '\0'), "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xEF\xBF\xBF"}},
        {{0xD800, 0xDC00, 0xDBFF, 0xDFFF}, {"\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}},
        {{0xDC00, 'a', 0xD800, 'b', 0xD800, 0xD800, 0xDC00, 0xDBFF},
         {"\xED\xB0\x80", "a", "\xED\xA0\x80", "b", "\xED\xA0\x80", "\xF0\x90\x80\x80",
          "\xED\xAF\xBF"}},
    };
    for (const auto& c : kCases) {
        size_t total = 0;
        for (const string& character : c.characters)
            total += character.size();
        for (size_t room = 0; room <= total; ++room) {
            string fits;
            long units = 0;
            for (const string& character : c.characters) {
                if (fits.size() + character.size() > room)
                    break;
                fits += character;
                units += character.size() == 4 ? 2 : 1;
            }
            std::vector<unsigned char> bytes(room + 1, '#');
            const unsigned short* src = c.units.data();
            unsigned char* dst = bytes.data();
            EXPECT_EQ(zconvert_UTF16_to_UTF8(&src, src + c.units.size(), &dst, dst + room),
                      room == total ? 0 : 2);
            EXPECT_EQ(src - c.units.data(), units);
            EXPECT_EQ(string(bytes.data(), dst), fits);
            EXPECT_EQ(*dst, '#');
        }
    }
}

// ---------------------------------------------------------------- loader

const string kLibrary = LOADED_LIBRARY;
const string kStem = kLibrary.substr(0, kLibrary.size() - 3);

// What the default service prints of what a call raises.
template <typename Call>
string printedBy(Call call) {
    try {
        call();
    } catch (ZException& e) {
        testing::internal::CaptureStderr();
        e.print();
        return testing::internal::GetCapturedStderr();
    }
    return "nothing raised";
}

bool endsWith(const string& text, const string& end) {
    return ZLCConstString(text.c_str()).endsWith(end.c_str());
}

TEST(PlainLoader, TellsErrorsOnlyWhereTheyAreWanted) {
    int error = 99;
    EXPECT_EQ(zdlopen(nullptr, 0, &error), nullptr);
    EXPECT_EQ(error, 2);
    EXPECT_EQ(zdlerror(), nullptr);
    void* handle = zdlopen(kLibrary.c_str(), 0, &error);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_NE(zdlsym(handle, "answer", nullptr), nullptr);
    for (const auto& [from, symbol] : {std::pair<void*, const char*>{nullptr, "answer"},
                                       {handle, nullptr},
                                       {handle, "nothing"}}) {
        errno = 77;
        EXPECT_EQ(zdlsym(from, symbol, &error), nullptr);
        EXPECT_EQ(error, 77);
    }
    zdlclose(handle, &error);
    EXPECT_EQ(error, 0);
    zdlclose(nullptr, &error);
    EXPECT_EQ(error, 2);
}

TEST(SharedLibrary, CompletesItsName) {
    const TempFolder folder;
    const string bare = folder.write("bare", TempFolder::read(kLibrary));
    struct Unusual : ZSharedLibrary {
        Unusual() : ZSharedLibrary(kStem.c_str()) { suffix_ = ".none"; }  // altSuffix_ serves
    } unusual;
    ZSharedLibrary whole(kLibrary.c_str()), stem(kStem.c_str()), suffixed((bare + ".so").c_str());
    for (ZSharedLibrary* library :
         {&whole, &stem, &suffixed, static_cast<ZSharedLibrary*>(&unusual)}) {
        library->loadLibrary();
        EXPECT_NE(library->getHandle(), nullptr);
        EXPECT_EQ(reinterpret_cast<int (*)()>(library->resolveSymbol("answer"))(), 42);
        library->unloadLibrary();
        EXPECT_EQ(library->getHandle(), nullptr);
    }
    // The failure of the first name stays on record.
    EXPECT_STREQ(whole.getLastErrorMessage().getChars(), "");
    EXPECT_TRUE(stem.getLastErrorMessage().beginsWith((kStem + ": ").c_str()));
    EXPECT_TRUE(suffixed.getLastErrorMessage().beginsWith((bare + ".so: ").c_str()));
}

TEST(SharedLibrary, FailuresCarryTheLoadersWordsAndNoOlderOnes) {
    const string missing = kStem + ".none";
    ZSharedLibrary library(missing.c_str());
    const string load = printedBy([&] { library.loadLibrary(); });
    const string words = library.getLastErrorMessage().getChars();
    EXPECT_EQ(words.find(missing + ": "), 0u);  // the first name, not one of the later tries
    EXPECT_TRUE(endsWith(load, "load/unload error (" + missing + ") " +
                                   std::to_string(library.getLastErrorNumber()) + ".  " + words));
    // Nothing is loaded, and what the loader said of the later tries isn't said of this.
    EXPECT_TRUE(endsWith(printedBy([&] { library.unloadLibrary(); }),
                         "load/unload error (" + missing + ") 2.  "));
    EXPECT_EQ(numberOf([&] { library.loadLibrary(); }), 51);
    errno = 77;
    EXPECT_TRUE(endsWith(printedBy([&] { library.resolveSymbol("answer"); }),
                         "resolve error (" + missing + ":answer) 77.  "));

    ZSharedLibrary loaded(kLibrary.c_str());
    loaded.loadLibrary();
    EXPECT_EQ(numberOf([&] { loaded.resolveSymbol("none"); }), 52);
    EXPECT_TRUE(loaded.getLastErrorMessage().contains("none"));
    EXPECT_EQ(numberOf([&] { loaded.resolveSymbol(nullptr); }), 52);
    EXPECT_TRUE(loaded.getLastErrorMessage().isEmpty());
    failingCall = "dlclose";
    EXPECT_EQ(numberOf([&] { loaded.unloadLibrary(); }), 51);
    failingCall = "";
    EXPECT_EQ(loaded.getLastErrorNumber(), EIO);
    EXPECT_NE(loaded.getHandle(), nullptr);
    loaded.unloadLibrary();
}

TEST(SharedLibrary, AFailedInitializeLeavesItLoaded) {
    struct Refusing : ZSharedLibrary {
        using ZSharedLibrary::ZSharedLibrary;
        int initialize() override { return getHandle() != nullptr; }
    } library(kLibrary.c_str());
    library.setLastErrorNumber(5);
    EXPECT_TRUE(endsWith(printedBy([&] { library.loadLibrary(); }), ") 5.  initialize"));
    EXPECT_NE(library.getHandle(), nullptr);
    library.unloadLibrary();
}

TEST(SharedLibrary, FlagsAndCopies) {
    ZSharedLibrary library(kLibrary.c_str());
    const auto expectFlags = [&](int flags, int isLocal, int lazy) {
        EXPECT_EQ(library.getFlags(), flags);
        EXPECT_EQ(library.getLocalScope(), isLocal);
        EXPECT_EQ(library.getLazyResolution(), lazy);
    };
    library.setLocalScope(1);
    expectFlags(0, 0, 0);  // 0 stands for a global load
    library.setLazyResolution(1);
    expectFlags(RTLD_LAZY, 1, RTLD_LAZY);
    library.setLocalScope(0);
    library.setLazyResolution(0);
    expectFlags(RTLD_NOW | RTLD_GLOBAL, 0, 0);

    library.loadLibrary();
    ZSharedLibrary copy(library), assigned(kStem.c_str());
    assigned.loadLibrary();
    void* const stays = assigned.getHandle();
    EXPECT_EQ(copy.getHandle(), nullptr);
    EXPECT_EQ(copy.getFlags(), 0);
    EXPECT_TRUE(copy == library);
    EXPECT_TRUE(assigned != library);
    assigned = library;
    EXPECT_TRUE(assigned == library);
    EXPECT_EQ(assigned.getFlags(), library.getFlags());
    EXPECT_EQ(assigned.getHandle(), nullptr);
    zdlclose(stays, nullptr);
    library = *&library;
    EXPECT_NE(library.getHandle(), nullptr);
    library.unloadLibrary();
}

// ---------------------------------------------------------------- small services

TEST(LocalHostName, FailuresAreReportedAndGiveNoName) {
    EXPECT_STREQ(ZLocalHostName::getLocalHostName().getChars(), "this-host.example");
    const RecordingService service;
    for (const char* call : {"gethostname", "gethostbyname"}) {
        failingCall = call;
        EXPECT_TRUE(ZLocalHostName::getLocalHostName().isEmpty());
    }
    failingCall = "";
    EXPECT_EQ(service.reports(), (std::vector<string>{"25: 5", "26: 5"}));
}

TEST(SmallServices, DoAsTheSystemDoes) {
    const int fd = open("/dev/null", O_RDONLY);
    EXPECT_EQ(zsetfileinheritance(fd, 0), 1);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(zsetfileinheritance(fd, 7), 1);
    EXPECT_EQ(fcntl(fd, F_GETFD), 0);
    close(fd);
    EXPECT_EQ(zsetfileinheritance(fd, 1), 0);
    EXPECT_EQ(errno, EBADF);

    unsigned char address[16];
    char text[INET6_ADDRSTRLEN];
    EXPECT_EQ(zinet_pton(AF_INET6, "0:0::1", address), 1);
    EXPECT_STREQ(zinet_ntop(AF_INET6, address, text, sizeof text), "::1");
    EXPECT_EQ(zinet_ntop(AF_INET6, address, text, 3), nullptr);
    EXPECT_EQ(zinet_pton(-1, "1.2.3.4", address), -1);

    ZLCString out;
    EXPECT_EQ(numberOf([] { ZWinRegistry::exists(nullptr, nullptr); }), 11);
    EXPECT_EQ(numberOf([&] { ZWinRegistry::getValue("k", "v", out); }), 11);
}

}  // namespace
