// The header of modern C++: what its objects keep alive, what crosses frames of C, and what it
// refuses or converts on its own. scripts/check-modern compiles this in each standard.
#include "support/Prelude.h"

#include <cxxabi.h>

#include "Z/ZString.h"
#include "Z/zbase.hpp"
#include "support/Gate.h"
#include "support/SelfChild.h"
#include "support/TempFolder.h"
#include "support/Threads.h"

using namespace std::chrono_literals;
using namespace std::string_view_literals;
using std::string;

namespace {

const char kStart[] = "# top\n\n[s]\n# of k\nk = 1\nm = a\nm = b\nnone =\n[t]\nk = 2\n";

const zbase::options kWithoutWaiting = {true, true, zbase::store_mode::safe, 0ms};

/// The class, result and text of what a call raises: "zbase::locked 60 fcntl(): ...".
template <typename Call>
string raised(Call call) {
    try {
        call();
    } catch (const zbase::error& e) {
        const std::unique_ptr<char, decltype(&free)> name(
            abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, nullptr), &free);
        return name.get() + (" " + std::to_string(e.result())) + " " + e.text();
    }
    return "nothing";
}

/// Whether a call raises this, with whatever text.
template <typename Call>
void expectRaised(const string& wanted, Call call) {
    EXPECT_EQ(raised(call).substr(0, wanted.size()), wanted);
}

struct Modern : testing::Test {
    Modern() { unsetenv("LOCPATH"); }  // glibc leaks its copy with each locale that it makes
    TempFolder folder;
    const string path = folder.write("f", kStart);
};

// ---------------------------------------------------------------- lifetimes

// A key that takes another's value would look like a change, and change nothing.
static_assert(!std::is_assignable_v<zbase::key, zbase::key>);
static_assert(!std::is_assignable_v<const zbase::key, const char*>);
static_assert(std::is_nothrow_copy_constructible_v<zbase::bad_data>);

TEST_F(Modern, WhatCameFromAFileOutlivesItsMovesAndItsEnd) {
    auto f = std::make_unique<zbase::file>(path);
    zbase::key k = (*f)["s"]["k"];
    zbase::watch w(*f);
    zbase::file moved = std::move(*f);
    k = "3";
    moved.store();
    expectRaised("zbase::error 55 bad handle or argument", [&] { (*f)["s"]["k"].get(); });
    f.reset();
    moved = zbase::file(folder.write("g", "[s]\nk = g\n"));
    EXPECT_EQ(k.get(), "3");
    // The watch alone keeps its file now.
    k = moved["s"]["k"];
    folder.replace("f", "[s]\nm = b\n");
    EXPECT_GT(w.process(), 0);
    w = zbase::watch(moved);
    EXPECT_EQ(zbase::file(path)["s"]["m"].values().back(), "b");
}

TEST_F(Modern, AnUpdateIsTakenBackUnlessItWasCommitted) {
    zbase::file f(path, kWithoutWaiting), g(path, kWithoutWaiting);
    zbase::file elsewhere(folder.write("g", kStart));
    expectRaised("zbase::error 1", [&] {
        zbase::update u(f);
        f["s"]["k"] = "lost";
        throw zbase::error(1);
    });
    EXPECT_EQ(f["s"]["k"].get(), "1");
    {
        zbase::update u(f), other(std::move(u));
        EXPECT_TRUE(!u.is_open() && other.is_open());
        expectRaised("zbase::error 62", [&] { u.commit(); });
        u.rollback();
        f["s"]["k"] = "kept";
        expectRaised("zbase::error 55", [&] { f.store(); });
        expectRaised("zbase::error 55", [&] { f.store(path); });
        f.store(folder / "copy");
        expectRaised("zbase::locked 60", [&] { zbase::update v(g, 1ms); });
        expectRaised("zbase::locked 60", [&] { zbase::file h(path, kWithoutWaiting); });
        other.commit();
        // The place of an update that is open still ends that one.
        other = zbase::update(g);
        g["s"]["k"] = "lost";
        other = zbase::update(elsewhere);
    }
    EXPECT_EQ(g["s"]["k"].get(), "kept");
    zbase::update(f).commit();
    f.store();
    EXPECT_EQ(zbase::file(path)["s"]["k"].get(), "kept");
}

// ---------------------------------------------------------------- callbacks

TEST_F(Modern, WhatCallbacksRaiseComesOutBehindTheCall) {
    zbase::file f(path);
    zbase::watch w(f);
    folder.replace("f", "[s]\nk = 9\nnew = 1\n");
    int told = 0, visits = 0;
    const auto fail = [&](const zbase::change&) {
        throw std::out_of_range(string(size_t(++told), 'x'));
    };
    EXPECT_THROW(w.process(fail), std::out_of_range);
    EXPECT_EQ(told, 1);
    EXPECT_EQ(f["s"]["k"].get(), "9");
    EXPECT_EQ(w.process(), 0);

    expectRaised("zbase::missing 54 more", [&] {
        f.for_each([&](const zbase::entry& e) { ++visits, f[e.stanza]["more"].get(); });
    });
    f.for_each([&](const zbase::entry&) { return ++visits < 3; });
    EXPECT_EQ(visits, 3);
    // No lock has stayed behind, which would keep another thread waiting. And cancelling one in a
    // callback ends the thread and not the process.
    if (!CAN_UNWIND)
        return;
    std::promise<void> inside;
    const auto visit = [&](const zbase::entry&) { inside.set_value(), pause(); };
    cancelWithin([&] { f.for_each(visit); }, [&] { inside.get_future().wait(); });
}

// ---------------------------------------------------------------- texts and numbers

TEST_F(Modern, NoTextIsCutAtItsNul) {
    zbase::file f(path);
    const std::string_view bad = "s\0x"sv;
    const std::function<void()> calls[] = {
        [&] { zbase::file(path + string(bad)); },
        [&] { f.store(path + string(bad)); },
        [&] { f[bad].exists(); },
        [&] { f["s"][bad].exists(); },
        [&] { f["s"]["k"] = bad; },
        [&] { f["s"]["k"].add(bad); },
        [&] { f["s"]["k"].add_comment(bad); },
        [&] { f["s"].add_comment(bad); },
        [&] { f.add_comment(bad); },
    };
    for (const auto& call : calls)
        EXPECT_EQ(raised(call), "zbase::error 55 a text with a NUL in it") << &call - calls;
    EXPECT_EQ(f.to_bytes(), kStart);
}

TEST_F(Modern, ValuesAreConvertedOrRefused) {
    zbase::file f(path);
    const auto as = [&f](const char* text, auto kind) {
        f["s"]["k"] = text;
        string read = "none";
        const string failure = raised([&] {
            if (const auto value = f["s"]["k"].as<decltype(kind)>())
                read = std::to_string(+*value);
        });
        return failure == "nothing" ? read : failure;
    };
    const std::pair<string, string> conversions[] = {
        {as("128", std::int8_t()), "zbase::bad_value 53 out of range: 128"},
        {as("65536", std::uint16_t()), "zbase::bad_value 53 out of range: 65536"},
        {as("-1", 0u), "zbase::bad_value 53 out of range: -1"},
        {as("0xffffffff", 0u), "4294967295"},
        {as("4294967296", 0), "zbase::bad_value 53 out of range: 4294967296"},
        {as("-9223372036854775808", 0ll), "-9223372036854775808"},
        {as("9223372036854775808", 0ull), "zbase::bad_value 53 9223372036854775808"},
        {as("0", 0), "0"},
        {as("", 0), "none"},
        {as("1e39", 0.f), "zbase::bad_value 53 out of range: 1e39"},
        {as("maybe", false), "zbase::bad_value 53 maybe"},
    };
    for (const auto& [got, wanted] : conversions)
        EXPECT_EQ(got, wanted);
    expectRaised("zbase::bad_value 53", [&] { f["s"]["k"] = UINT64_MAX; });
    expectRaised("zbase::missing 54", [&] { f["s"]["none"].get(); });
    EXPECT_TRUE(f["s"]["none"].exists());
    // A text isn't taken for a truth.
    f["s"]["k"] = "text";
    EXPECT_EQ(f["s"]["k"].value_or("other"), "text");
}

TEST_F(Modern, BytesThatAreNoUtf8ComeBack) {
    const string odd = "\xff\xfe caf\xe9 \xc3";
    zbase::file f(path);
    f["s"]["k"] = odd;
    f[odd][odd] = odd;
    f[odd][odd].add_comment("# " + odd);
    f.store();
    for (const zbase::file& g : {zbase::file(path), zbase::file::from_bytes(f.to_bytes())}) {
        EXPECT_EQ(g["s"]["k"].value(), odd);
        EXPECT_EQ(g[odd][odd].value(), odd);
        EXPECT_EQ(g[odd][odd].comments(), std::vector<string>{"# " + odd});
    }
}

TEST_F(Modern, FailuresTellWhere) {
    const string bad = folder.write("bad", "[s]\nk = 1\nnonsense\n");
    expectRaised("zbase::bad_data 51 nonsense", [&] { zbase::file f(bad); });
    expectRaised("zbase::bad_data 51 x", [&] { zbase::file::from_bytes("x"); });
    expectRaised("zbase::file_error 51", [&] { zbase::file f(folder / "no"); });
    const auto failure = [](const string& name) {
        try {
            zbase::file f(name);
        } catch (const zbase::error& e) {
            return e;
        }
        return zbase::error(0);
    };
    EXPECT_EQ(failure(folder / "no").code(), std::errc::no_such_file_or_directory);
    EXPECT_EQ(failure(bad).what(), bad + ":3: can't be loaded or stored: nonsense");
    zbase::file f(path);
    expectRaised("zbase::error 52", [&] { f["s"]["k"] = "two\nlines"; });
    expectRaised("zbase::bad_data 51 x", [&] { f.load_bytes("x"); });
    EXPECT_EQ(f.to_bytes(), kStart);
}

// ---------------------------------------------------------------- dialects

TEST_F(Modern, FilesOfOtherDialectsKeepTheirSpelling) {
    std::filesystem::create_directories(folder / "zbase/dialects");
    folder.write("zbase/dialects/ours.conf",
                 "# Ours.\n[dialect]\ncomments = semicolon\ntails = anywhere\nbare = yes\n"
                 "quotes = shell\norphans = yes\n[files]\npattern = */our.ini\n");
    setenv("XDG_CONFIG_HOME", (folder / "").c_str(), 1);
    const string ini = folder.write("our.ini", "; c\na = 'x' ; tail\n[s]\nfast\n");
    zbase::options how;
    how.dialect = zbase::dialect("ours");
    zbase::file f(ini, how);
    EXPECT_EQ(f[""]["a"].value(), "x");
    EXPECT_TRUE(f["s"]["fast"].bare());
    f[""]["a"] = "y;";
    f["s"]["slow"].set_bare();
    f["s"]["fast"] = 1;
    f.store();
    EXPECT_EQ(zbase::file(ini, how).to_bytes(), f.to_bytes());
    std::ifstream stored(ini, std::ios::binary);
    EXPECT_EQ(string(std::istreambuf_iterator<char>(stored), {}),
              "; c\na = 'y;' ; tail\n[s]\nfast = 1\nslow\n");

    ZDialect clash = how.dialect->native();
    clash.continued = ZDIALECT_BACKSLASH;
    expectRaised("zbase::error 55 continued lines by backslash can't go with shell quotes",
                 [&] { how.dialect = zbase::dialect(clash); });
    expectRaised("zbase::file_error 51", [] { zbase::dialect none("nobody's"); });
    EXPECT_EQ(zbase::dialect::preset_of(ini), "ours");
    EXPECT_EQ(zbase::dialect::preset_of("/none.of.these"), std::nullopt);
    const auto all = zbase::dialect::presets();
    EXPECT_EQ(std::count(all.begin(), all.end(), std::make_pair(string("ours"), string("Ours."))),
              1);
    zbase::file own(path);
    expectRaised("zbase::error 52", [&] { own["s"]["k"].set_bare(); });
}

// ---------------------------------------------------------------- ranges

TEST_F(Modern, WalksGoOverWhatThereWas) {
    zbase::file f(path);
    string walked;
    for (auto stanza : f)
        for (auto key : stanza) {
            walked += stanza.name() + "." + key.name() + "=" + key.value_or("none") + " ";
            f.erase("t");
            key.erase();
        }
    EXPECT_EQ(walked, "s.k=1 s.m=b s.none=none ");
    f["u"]["k"] = 1;
    EXPECT_EQ(std::distance(f.begin(), f.end()), 2);
    auto place = f.begin();
    EXPECT_EQ(place++, f.begin());
    EXPECT_TRUE(place != f.begin() && ++place == f.end());
#if __cplusplus >= 202002L
    static_assert(std::ranges::forward_range<zbase::file>);
    static_assert(std::forward_iterator<zbase::iterator<zbase::key>>);
    EXPECT_EQ(std::ranges::find(f["u"], "k", &zbase::key::name)->stanza_name(), "u");
#endif
}

// ---------------------------------------------------------------- set-up

TEST(ModernSetUp, DISABLED_GoesOnWithAnother) {
    const ZLCString first("text");
    const zbase::file f = zbase::file::from_bytes("[s]\nk = \xc3\xa9\n");
    EXPECT_EQ(zstzPropSetup(ZPROP_SETUP_UTF8), ZPROP_ERR_SETUP);
    EXPECT_EQ(f["s"]["k"].get(), "\xc3\xa9");
}

TEST(ModernSetUp, GoesOnWithAnother) {
    expectChildPasses("ModernSetUp.DISABLED_GoesOnWithAnother", {{"LOCPATH", nullptr}});
}

}  // namespace
