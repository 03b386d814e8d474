// Exceptions, the message service and what reports look like, byte for byte.
#include "support/Prelude.h"

#include <dlfcn.h>
#include <iconv.h>

#include "Z/ZCodesetException.h"
#include "Z/ZExceptionText.h"
#include "Z/ZMessage.h"
#include "Z/ZString.h"
#include "support/SelfChild.h"
#include "support/Threads.h"

// Stands in front of the system's: a process can lose the tables of its codesets.
static bool codesetsAreMissing = false;

extern "C" iconv_t iconv_open(const char* to, const char* from) {
    if (codesetsAreMissing) {
        errno = EINVAL;
        return reinterpret_cast<iconv_t>(-1);
    }
    using Open = iconv_t (*)(const char*, const char*);
    return reinterpret_cast<Open>(dlsym(RTLD_NEXT, "iconv_open"))(to, from);
}

namespace {

std::string threadLine() {
    return " Thread: " + std::to_string(static_cast<int>(pthread_self())) + "\n";
}

template <typename Action>
std::string standardError(Action action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

std::string report(const std::string& name, int number, const std::string& text,
                   const std::string& location = "\"\" 0") {
    return "Exception: " + name + "\n File: " + location + "\n Error: " + std::to_string(number) +
           "\n" + threadLine() + "NUM_MSGS = 55\n" + text;
}

using Made = std::unique_ptr<ZException>;

struct ReportCase {
    std::function<Made()> make;
    const char* name;
    int number;
    std::string text;
};

// A report by an exception of the class: P of properties, R of locks (all by one name), Z the rest.
#define NAMED(name, number, text, ...)                           \
    {                                                            \
        [] { return Made(new __VA_ARGS__); }, name, number, text \
    }
#define Z(number, text, Class, ...) NAMED("Z" #Class, number, text, Z##Class(__VA_ARGS__))
#define P(number, text, Class, ...) Z(number, text, Properties##Class##Exception, __VA_ARGS__)
#define R(number, text, Class, ...) \
    NAMED("ZResourceException", number, text, Z##Class##ResourceException(__VA_ARGS__))

const char kNoText[] = "No default text defined in ZMessage for the exception\n";

// clang-format off
const ReportCase kReports[] = {
    Z(1, "Memory allocation failure.", OutOfMemoryException, ),
    Z(2, "iconv_open failed for codepage A to B conversion. errno = 22.", ConverterException,
      2, 22, "A", "B"),
    R(5, "Unexpected error from pthread_mutex_lock().  rc = -1.", Lock, 5, -1),
    Z(31, "The requested function is not implemented.", AbstractNotImplementedException, "x"),
    NAMED("ZResourceException", 32,
          "An unexpected lock state was detected.  The current lock state is read.",
          ZInvalidResourceStateException("read")),
    R(37, "Create failed for a process lock.  rc = 13 and the lock file name is /l.", Open,
      37, 13, "/l"),
    R(38, "Close failed for a process lock.  rc = 5 and the lock file name is /l.", Close,
      38, 5, "/l"),
    P(28, "The configuration file f is missing the required attribute k in stanza c.",
      MissingProperty, "f", "c", "k"),
    P(39, "The configuration file f has an invalid value v for key k in stanza c.",
      InvalidValue, "f", "c", "k", "v"),
    NAMED("ZPropertiesInvalidValueException", 40,
          "The configuration file f has an invalid numeric value v for key k in stanza c.",
          ZPropertiesInvalidNumValueException("f", "c", "k", "v")),
    NAMED("ZPropertiesInvalidValueException", 41,
          "The configuration file f has an invalid boolean value v for key k in stanza c.",
          ZPropertiesInvalidBoolValueException("f", "c", "k", "v")),
    P(42, "The iterator for  configuration file f is in an invalid state for the operation",
      Iterator, "f"),
    P(43, "Access failed for configuration file f.  The access function was fopen(w) and "
      "return code was 22", IO, "f", "fopen(w)", 22),
    P(44, "The configuration file \"f\" contains invalid data at line 7.\nData: \"d\"",
      InvalidData, "f", "d", 7),
    Z(49, "Local codeset LOCAL string could not be converted to UTF-8.", ToUTF8Exception, ),
    Z(50, "UTF-8 string could not be converted to the local codeset LOCAL.", FromUTF8Exception, ),
    Z(51, "Shared library load/unload error (l) 2.  m", SharedLibraryLoadException, "l", "m", 2),
    Z(52, "Shared library resolve error (l:s) 3.  m", SharedLibraryResolveException,
      "l", "s", "m", 3),
    Z(53, "Unexpected end of file encounted while reading w.", UnexpectedEndOfFile, "w"),
    Z(54, "Internal error encountered while loading Java property file w.",
      JavaPropertyParseException, "w"),
    Z(0, kNoText, ThreadException, 0, 1), Z(23, kNoText, ThreadException, 23, 1),
    Z(55, kNoText, ThreadException, 55, 1), Z(-1, kNoText, ThreadException, -1, 1),
};
// clang-format on

TEST(Exceptions, ReportNameNumberAndInserts) {
    for (const ReportCase& c : kReports) {
        SCOPED_TRACE(testing::Message() << c.name << " " << c.number);
        std::string text = c.text;
        const size_t local = text.find("LOCAL");
        if (local != std::string::npos)
            text.replace(local, 5, zgetLocalCodesetName());
        const std::string expected = report(c.name, c.number, text);

        Made original = c.make();
        EXPECT_EQ(standardError([&] { original->print(); }), expected);

        // A copy has texts of its own: it still has them when the original is gone.
        Made copy(static_cast<ZException*>(original->clone()));
        original.reset();
        EXPECT_EQ(standardError([&] { copy->dumpException(); }), expected);

        // So has what is raised, with the location.
        std::string raised;
        try {
            copy->throwException("here.cpp", 12);
        } catch (ZException& caught) {
            copy.reset();
            raised = standardError([&] { caught.print(); });
        }
        EXPECT_EQ(raised, report(c.name, c.number, text, "\"here.cpp\" 12"));
    }
}

TEST(Exceptions, HaveOneLocationTheLatest) {
    const auto locationOf = [](const ZException& e) {
        const char* file = "";
        int line = -1;
        EXPECT_EQ(e.locationCount(), 1);
        EXPECT_EQ(e.location(7, file, line), 1);
        EXPECT_EQ(file, e.who());
        EXPECT_EQ(static_cast<unsigned long>(line), e.where());
        return (file == nullptr ? "none" : file) + std::to_string(line);
    };
    ZInvalidParameterException exception;
    EXPECT_EQ(locationOf(exception), "none0");
    exception.addLocation("a", 1);
    try {
        exception.throwException("b", 2);
    } catch (ZException& caught) {
        EXPECT_EQ(locationOf(caught), "b2");
        caught.addLocation("c", 3);
        EXPECT_EQ(locationOf(caught), "c3");
    }
    EXPECT_EQ(locationOf(exception), "b2") << "what was raised keeps its own";
}

TEST(Exceptions, NumberAndTruthValuesAreRaisedAsTheirBase) {
    ZPropertiesInvalidNumValueException exception("file", "stanza", nullptr, "value");
    try {
        exception.throwException("f", 1);
    } catch (ZPropertiesInvalidValueException& caught) {
        EXPECT_EQ(typeid(caught), typeid(ZPropertiesInvalidValueException));
        EXPECT_STREQ(caught.propFile(), "file");
        EXPECT_STREQ(caught.category(), "stanza");
        EXPECT_STREQ(caught.key(), "") << "null is the empty text";
        EXPECT_STREQ(caught.value(), "value");
    }
}

TEST(Messages, PlainMessagesShowNumberAndInserts) {
    ZMessageService* service = ZMessageService::defaultMessageService();
    const ZLCString a("one"), b("two");
    const ZUTF8String u("three");
    const ZUTF8String* const none = nullptr;
    const std::string header = "Error: 25\n File: \"a/file\" 69\n" + threadLine();
    const std::pair<int, const char*> cases[] = {
        {0, ""}, {-1, ""}, {2, "Additional Information:\none\ntwo\n"}};
    for (const auto& [count, inserts] : cases) {
        EXPECT_EQ(standardError([&, count = count] {
                      service->outputMessage("a/file", 69, 25, count, &a, &b, nullptr, nullptr,
                                             nullptr, nullptr);
                  }),
                  header + inserts);
    }
    EXPECT_EQ(standardError([&] {
                  service->outputMessageUTF8("a/file", 69, 25, 1, &u, none, none, none, none, none);
              }),
              header + "Additional Information:\nthree\n");
}

// Notes which of its operations was called.
class Service : public ZDefaultMessageService {
public:
    int outputException(ZException&) const override { return calls += "object ", 41; }
    int outputException(const ZZException* exception, char*) const override {
        calls += exceptionName(*exception);
        return 42;
    }
    mutable std::string calls;
};

TEST(Messages, GoThroughTheServiceThatIsSet) {
    const Service service;
    ZUnsupportedException exception;
    ZMessageService::setMessageService(&service);
    EXPECT_EQ(exception.dumpException(), 41);
    EXPECT_EQ(exception.print(), 42);
    EXPECT_EQ(service.calls, "object ZUnsupportedException");
    ZMessageService::setMessageService(nullptr);
    EXPECT_EQ(ZMessageService::messageService(), ZMessageService::defaultMessageService());
}

// Passes each report on, keeps a text of its own, and needs strings for that.
class LoggingService : public ZDefaultMessageService {
public:
    using ZDefaultMessageService::outputException;
    int outputException(const ZZException* exception, char* args) const override {
        char text[16];
        ZDefaultMessageService::outputException(exception, args);
        vsnprintf(text, sizeof text, "%d", reinterpret_cast<ZMessageArguments*>(args)->list);
        log += text;
        return 0;
    }
    mutable ZLCString log;
};

TEST(Messages, LeaveTheInsertsToWhoPassedThemOn) {
    const LoggingService service;
    ZMessageService::setMessageService(&service);
    const std::string written = standardError([] { ZThreadException(5, 4711).print(); });
    ZMessageService::setMessageService(nullptr);
    EXPECT_NE(written.find("rc = 4711."), std::string::npos);
    EXPECT_STREQ(service.log, "4711");
}

// In processes of their own, where nothing has been used yet.

TEST(Child, DISABLED_ServiceIsTheDefaultOneAtFirst) {
    inFourThreads([] {
        EXPECT_EQ(ZMessageService::messageService(), ZMessageService::defaultMessageService());
    });
}

TEST(Child, DISABLED_ServiceIsSetBeforeAnyUse) {
    static const Service service;
    ZMessageService::setMessageService(&service);
    EXPECT_EQ(ZMessageService::messageService(), &service);
    EXPECT_NE(ZMessageService::defaultMessageService(), &service);
}

TEST(Child, DISABLED_FirstString) { ZLCString string("text"); }

// In a process without text, a service that asks for text while it reports just that.
class AskingService : public ZDefaultMessageService {
public:
    explicit AskingService(void (*ask)()) : ask_(ask) { setMessageService(this); }
    int outputException(const ZZException*, char*) const override { return ask_(), 0; }

private:
    void (*const ask_)();
};

TEST(Child, DISABLED_ServiceMakesStrings) {
    static const AskingService service([] { ZLCString string("text"); });
    EXPECT_EQ(zgetlocale(), nullptr);
}

TEST(Child, DISABLED_ServiceRaises) {
    static const AskingService service([] { throw 1; });
    ZLCString string("text");
}

TEST(Child, DISABLED_ServiceAsksForNames) {
    static const AskingService service([] { EXPECT_EQ(zgetlocale(), nullptr); });
    EXPECT_EQ(zgetlocale(), nullptr);
}

TEST(Child, DISABLED_NamesWithoutQELDIR) {
    EXPECT_EQ(zgetlocale(), nullptr);
    setenv("QELDIR", "/later", 1);  // too late: set-up has run
    EXPECT_EQ(zgetlocale(), nullptr);
    EXPECT_EQ(zgetLocalCodesetName(), nullptr);
    EXPECT_EQ(zset_cs_dir(nullptr), 0);
}

TEST(Child, DISABLED_CodesetExceptionWithoutQELDIR) {
    ZCodesetException exception("KLINGON");
    const Made copy(static_cast<ZException*>(exception.clone()));
    EXPECT_EQ(standardError([&] { copy->print(); }),
              report("ZCodesetException", 47,
                     "Codeset handle create failed for codeset \"KLINGON\".  QELDIR is \"\""));
}

TEST(Child, DISABLED_FirstStringWithoutCodeset) {
    codesetsAreMissing = true;
    ZLCString string("text");
}

void expectAborts(const char* test,
                  const std::vector<std::pair<std::string, const char*>>& environment,
                  std::initializer_list<const char*> texts) {
    const SelfChild child = runSelf(test, environment);
    EXPECT_TRUE(child.aborted()) << child.output;
    for (const char* text : texts)
        EXPECT_TRUE(child.wrote(text)) << text << "\n" << child.output;
}

TEST(Setup, WithoutTablesEndsTheProcessOrGivesNoNames) {
    const char unset[] = "The QELDIR environment variable is not set.";
    expectAborts("Child.DISABLED_FirstString", {{"QELDIR", nullptr}},
                 {"Exception: ZNoQELEnvironmentException\n File: \"src/Z/zqelutil.cpp\"", unset});
    expectAborts("Child.DISABLED_FirstStringWithoutCodeset",
                 {{"LC_ALL", "en_US.ISO-8859-1"}, {"QELDIR", "/tables"}},
                 {"Exception: ZCodesetException\n",
                  "create failed for codeset \"ISO-8859-1\".  QELDIR is \"/tables\""});
    for (const char* test : {"Child.DISABLED_ServiceMakesStrings", "Child.DISABLED_ServiceRaises"})
        expectAborts(test, {{"QELDIR", nullptr}}, {unset});
    expectChildPasses("Child.DISABLED_ServiceAsksForNames", {{"QELDIR", nullptr}});
    const SelfChild child = runSelf("Child.DISABLED_NamesWithoutQELDIR", {{"QELDIR", nullptr}});
    EXPECT_TRUE(child.passed() && child.wrote(unset)) << child.output;
    expectChildPasses("Child.DISABLED_CodesetExceptionWithoutQELDIR", {{"QELDIR", nullptr}});
}

TEST(Messages, FirstUses) {
    expectChildPasses("Child.DISABLED_ServiceIsTheDefaultOneAtFirst");
    expectChildPasses("Child.DISABLED_ServiceIsSetBeforeAnyUse");
}

}  // namespace
