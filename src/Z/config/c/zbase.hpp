// zbase.hpp: configuration files for programs in C++17 and later: strings, optionals, ranges and
// exceptions of the standard library over the calls of zproperties.h.
//
//     zbase::file f("service.conf");
//     std::string level = f["log"]["level"].value_or("info");
//     std::optional<int> port = f["listener"]["port"].as<int>();
//     f["log"]["level"] = "debug";
//     f.store();
//
// All of it is compiled into the program. What crosses the library's border are calls of C alone,
// so that a program needn't have the library's compiler, standard library or its settings.
//
// Ownership: each object keeps what it stands on. A stanza, a key, an update or a watch is good for
//   any time, wherever its file was moved to or whether that is gone; the file is closed behind the
//   last of them. An object that was moved from may be assigned to and destroyed, and raises
//   zbase::error otherwise.
// Failure: zbase::error or what is derived from it, where nothing else is said; std::bad_alloc
//   without memory. A text with a NUL in it is refused, since the library would see its head alone.
//   A key or stanza that isn't there is no error but for get().
// Threads: calls with one file and with what came from it are atomic, each by itself. The objects
//   themselves are values: while one thread moves or assigns one, no other may use it.
// Text: UTF-8. The first file of the process sets texts up so (zstzPropSetup). Where the program
//   had them set up otherwise before, by another call of the library, they stay in the local
//   codeset. Bytes that are no UTF-8 come out as they stand in the file.
#ifndef Z_ZBASE_HPP
#define Z_ZBASE_HPP

#include "zdialects.h"
#include "zproperties.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

/// Configuration files with the means of the standard library.
namespace zbase {

// ---------------------------------------------------------------- failures

/// What a call has met.
class ZEXPORT error : public std::runtime_error {
public:
    /// With the result of the C call, and what zstzPropLastError and zstzPropLastErrno tell of it.
    explicit error(int result, int number = 0, std::string path = {}, int line = 0,
                   std::string text = {}, int code = 0)
        : std::runtime_error(message(result, path, line, text)),
          details_(std::make_shared<const details>(
              details{result, number, line, code, std::move(path), std::move(text)})) {}

    /// The result of the C call, such as ZPROP_ERR_FILE.
    int result() const noexcept { return details_->result; }
    /// The message number of the failure; 0 where it has none.
    int number() const noexcept { return details_->number; }
    /// The file or directory that it is about, or an empty text.
    const std::string& path() const noexcept { return details_->path; }
    /// For bad data the line of the file, from 1; else 0.
    int line() const noexcept { return details_->line; }
    /// The bad line, the bad value, why something was refused, or what failed and why.
    const std::string& text() const noexcept { return details_->text; }
    /// The failed call of the system, such as std::errc::no_such_file_or_directory; false where
    /// none was involved.
    std::error_code code() const noexcept { return {details_->code, std::generic_category()}; }

private:
    struct details {
        int result, number, line, code;
        std::string path, text;
    };

    static const char* summary(int result) noexcept {
        switch (result) {
            case ZPROP_ERR_FILE:
                return "can't be loaded or stored";
            case ZPROP_ERR_UPDATE:
                return "can't be changed";
            case ZPROP_ERR_VALUE:
                return "can't be converted";
            case ZPROP_ERR_MISSING:
                return "missing";
            case ZPROP_ERR_PARAM:
                return "refused";
            case ZPROP_ERR_LOCKED:
                return "locked by somebody else";
            case ZPROP_ERR_UNSAVED:
                return "no update can begin";
            case ZPROP_ERR_NO_UPDATE:
                return "no update can end";
            default:
                return "failed";
        }
    }

    static std::string message(int result, const std::string& path, int line,
                               const std::string& text) {
        std::string whole = path;
        if (line != 0)
            whole += (path.empty() ? "line " : ":") + std::to_string(line);
        whole += whole.empty() ? "" : ": ";
        whole += summary(result);
        return text.empty() ? whole : whole + ": " + text;
    }

    // Shared, since exceptions are copied where nothing may be raised.
    std::shared_ptr<const details> details_;
};

/// A file that can't be opened, read or stored.
class ZEXPORT file_error : public error {
public:
    using error::error;
};

/// A file, or bytes, with a line that isn't one of a stanza file: line() and text() tell which.
class ZEXPORT bad_data : public file_error {
public:
    using file_error::file_error;
};

/// Somebody else held the file's lock for as long as the call was to wait.
class ZEXPORT locked : public error {
public:
    using error::error;
};

/// A value that get() needs isn't there.
class ZEXPORT missing : public error {
public:
    using error::error;
};

/// A value that isn't of the type that was asked for, or that the type has no room for.
class ZEXPORT bad_value : public error {
public:
    using error::error;
};

/// What serves this header alone.
namespace detail {

using handle = std::shared_ptr<ZPROP_handle>;

// Closes what a handle leads to, and tells which thread has an update of it open.
struct closing {
    closing() noexcept : updater(std::thread::id()) {}
    closing(const closing&) noexcept : closing() {}  // only ahead of any update
    void operator()(ZPROP_handle* opened) const noexcept { zstzPropClose(opened); }

    std::atomic<std::thread::id> updater;  // or none
};

inline handle own(ZPROP_handle* opened) { return handle(opened, closing()); }

inline void set_updater(const handle& of, std::thread::id thread) noexcept {
    if (closing* known = std::get_deleter<closing>(of))
        known->updater = thread;
}
inline bool updates_here(const handle& of) noexcept {
    const closing* known = std::get_deleter<closing>(of);
    return known != nullptr && known->updater == std::this_thread::get_id();
}

// Raises what the thread's last call, with this result, has met.
[[noreturn]] inline void raise(int result) {
    ZPROP_error last;
    const int number = zstzPropLastError(&last), code = zstzPropLastErrno();
    if (number == 1)  // whatever a function calls it
        throw std::bad_alloc();
    std::string path = last.file == nullptr ? "" : last.file;
    std::string text = last.text == nullptr ? "" : last.text;
    const auto as = [&](auto kind) {
        return typename decltype(kind)::type(result, number, std::move(path), last.line,
                                             std::move(text), code);
    };
    switch (result) {
        case ZPROP_ERR_FILE:
            if (last.line != 0)
                throw as(std::common_type<bad_data>());
            throw as(std::common_type<file_error>());
        case ZPROP_ERR_VALUE:
            throw as(std::common_type<bad_value>());
        case ZPROP_ERR_MISSING:
            throw as(std::common_type<missing>());
        case ZPROP_ERR_LOCKED:
            throw as(std::common_type<locked>());
        default:
            throw as(std::common_type<error>());
    }
}

inline void check(int result) {
    if (result != ZPROP_OK)
        raise(result);
}

// Once a process. Where texts were set up otherwise before, that is what there is.
inline void set_up() {
    static const int result = [] {
        const int made = zstzPropSetup(ZPROP_SETUP_UTF8);
        if (made != ZPROP_OK && made != ZPROP_ERR_SETUP)
            raise(made);
        return made;
    }();
    static_cast<void>(result);
}

// A text as C takes it.
inline std::string plain(std::string_view text) {
    if (text.find('\0') != std::string_view::npos)
        throw error(ZPROP_ERR_PARAM, 0, {}, 0, "a text with a NUL in it");
    return std::string(text);
}

// Asks a question whose result number goes to its last argument.
template <typename Function, typename... Arguments>
auto ask(Function function, Arguments... arguments) {
    int result = ZPROP_OK;
    const auto answer = function(arguments..., &result);
    check(result);
    return answer;
}

// Copies what the library gave, and gives it back even where that raises.
inline std::string taken(char* text, std::size_t length) {
    const std::unique_ptr<char, decltype(&zstzPropFree)> owner(text, &zstzPropFree);
    return std::string(text, length);
}

inline std::vector<std::string> copied(const char* const* texts) {
    std::vector<std::string> copies;
    for (; texts != nullptr && *texts != nullptr; ++texts)
        copies.emplace_back(*texts);
    return copies;
}

inline std::vector<std::string> taken(char** texts) {
    const std::unique_ptr<char*, decltype(&zstzPropFreeStanzas)> owner(texts, &zstzPropFreeStanzas);
    return copied(texts);
}

inline std::vector<std::string> comments(const handle& h, const char* stanza, const char* key) {
    char** lines = nullptr;
    check(zstzPropGetComments(h.get(), stanza, key, &lines));
    return taken(lines);
}

// No wait is longer than 24 days, so that no clock of the library runs over.
inline unsigned long milliseconds(std::chrono::milliseconds wait) noexcept {
    return wait.count() <= 0        ? 0
           : wait.count() > INT_MAX ? static_cast<unsigned long>(INT_MAX)
                                    : static_cast<unsigned long>(wait.count());
}

// A program's function on its way through frames of C, which no exception may cross.
template <typename Function>
class caught {
public:
    explicit caught(Function& function) noexcept : function_(&function) {}

    // Runs `call` with it, unless one before has failed. Whether that went well.
    template <typename Call>
    bool run(Call call) {
        if (failure_ != nullptr)
            return false;
        try {
            call(*function_);
        } catch (...) {
            failure_ = std::current_exception();
            if (failure_ == nullptr)
                throw;  // no exception: a cancelled thread unwinds, and the library lets it through
        }
        return failure_ == nullptr;
    }

    void rethrow() const {
        if (failure_ != nullptr)
            std::rethrow_exception(failure_);
    }

private:
    Function* function_;
    std::exception_ptr failure_;
};

template <typename T>
constexpr bool is_text = std::is_convertible_v<const T&, std::string_view>;

template <typename T>
constexpr bool is_character = std::is_same_v<T, char> || std::is_same_v<T, wchar_t> ||
                              std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

template <typename T>
constexpr bool is_number = (std::is_integral_v<T> && !is_character<T>) ||
                           std::is_same_v<T, float> || std::is_same_v<T, double>;

// Whether an integer type has room for `value`.
template <typename T>
constexpr bool has_room(std::int64_t value) noexcept {
    using limits = std::numeric_limits<T>;
    if constexpr (std::is_signed_v<T>)
        return value >= limits::min() && value <= limits::max();
    else
        return value >= 0 && static_cast<std::uint64_t>(value) <= limits::max();
}

}  // namespace detail

// ---------------------------------------------------------------- keys and stanzas

/// A key by its name, whether it is there or not. Each call looks anew.
///
/// A key without values ("key =") reads as one that isn't there; exists() tells the two apart.
class key {
public:
    /// The same key: assigning a key to a variable changes no file. f["a"]["b"] = f["c"]["d"] would
    /// seem to, and doesn't compile.
    key(const key&) = default;
    key(key&&) noexcept = default;
    key& operator=(const key&) & = default;
    key& operator=(key&&) & noexcept = default;

    /// What the key is called.
    const std::string& name() const noexcept { return name_; }
    /// What its stanza is called.
    const std::string& stanza_name() const noexcept { return stanza_; }

    /// Whether it is there.
    bool exists() const { return detail::ask(&zstzPropExists, raw(), stanza(), c_str()) != 0; }
    /// Whether its values stand in the side database and not in the text.
    bool hidden() const { return detail::ask(&zstzPropIsHidden, raw(), stanza(), c_str()) != 0; }
    /// The number of values.
    std::size_t size() const {
        return static_cast<std::size_t>(detail::ask(&zstzPropNumValues, raw(), stanza(), c_str()));
    }

    /// The last value.
    std::optional<std::string> value() const { return as<std::string>(); }

    /// All values in their order.
    std::vector<std::string> values() const {
        char** texts = nullptr;
        ZPROP_item item{ZPROP_ITEM_VALUES, stanza(), c_str(), ZPROP_ITEM_OPTIONAL, &texts};
        detail::check(zstzPropGetValues(raw(), &item, 1));
        const auto giveBack = [this](ZPROP_item* made) { zstzPropFreeValuesList(raw(), made, 1); };
        const std::unique_ptr<ZPROP_item, decltype(giveBack)> owner(&item, giveBack);
        return detail::copied(texts);
    }

    /// The last value as text (std::string), truth (bool), integer of any type, float or double.
    /// Integers are decimal, octal with a leading 0 or hexadecimal with 0x, from -2^63 to 2^63-1;
    /// truths yes, y, true, t, 1 or no, n, false, f, 0. Raises bad_value where the value can't be
    /// converted, or the type has no room for it.
    template <typename T>
    std::optional<T> as() const {
        return read<T>(false);
    }

    /// The same of a key that must have a value: raises missing.
    template <typename T = std::string>
    T get() const {
        return *read<T>(true);
    }

    /// The last value, or `other`: of a text a std::string, else of the type of `other`. Raises
    /// bad_value as as() does.
    template <typename T>
    auto value_or(const T& other) const {
        if constexpr (detail::is_text<T>) {
            std::optional<std::string> found = value();
            return found ? *std::move(found) : std::string(std::string_view(other));
        } else {
            return as<T>().value_or(other);
        }
    }

    /// Makes a text, truth or number the only value; an empty text leaves the key without one.
    /// Stanza, key and line are made as needed. Truths are written as yes or no.
    template <typename T>
    void set(const T& value) {
        if constexpr (detail::is_text<T>) {
            detail::check(
                zstzPropSetStringValue(raw(), stanza(), c_str(), detail::plain(value).c_str()));
        } else if constexpr (std::is_same_v<T, bool>) {
            detail::check(zstzPropSetBooleanValue(raw(), stanza(), c_str(), value ? 1 : 0));
        } else {
            static_assert(detail::is_number<T>, "a value is a text, a truth or a number");
            if constexpr (std::is_floating_point_v<T>)
                detail::check(zstzPropSetDoubleValue(raw(), stanza(), c_str(), value));
            else
                setInteger(value);
        }
    }
    /// The same.
    template <typename T, typename = std::enable_if_t<!std::is_same_v<T, key>>>
    key& operator=(const T& value) {
        set(value);
        return *this;
    }

    /// Whether it stands there without a divider, which only some dialects have; it has no values
    /// then.
    bool bare() const { return detail::ask(&zstzPropIsBare, raw(), stanza(), c_str()) != 0; }
    /// Makes it such a key.
    void set_bare() { detail::check(zstzPropSetBare(raw(), stanza(), c_str())); }

    /// Adds a value behind the others. An empty one is refused.
    void add(std::string_view value) {
        detail::check(
            zstzPropAddStringValue(raw(), stanza(), c_str(), detail::plain(value).c_str()));
    }
    /// Removes the key with its values. Nothing happens where it isn't there.
    void erase() { detail::check(zstzPropRemoveKey(raw(), stanza(), c_str())); }

    /// The comments directly above its line, a line each.
    std::vector<std::string> comments() const {
        return detail::comments(handle_, stanza(), c_str());
    }
    /// Adds a comment in front of it. "#" is put in front of the text if it isn't there.
    void add_comment(std::string_view text) {
        detail::check(
            zstzPropAddLineComment(raw(), stanza(), c_str(), detail::plain(text).c_str()));
    }
    /// Removes what comments() gives.
    void erase_comments() { detail::check(zstzPropRemoveComments(raw(), stanza(), c_str())); }

private:
    friend class stanza;

    key(detail::handle handle, std::string stanza, std::string name) noexcept
        : handle_(std::move(handle)), stanza_(std::move(stanza)), name_(std::move(name)) {}

    ZPROP_handle* raw() const noexcept { return handle_.get(); }
    const char* stanza() const noexcept { return stanza_.c_str(); }
    const char* c_str() const noexcept { return name_.c_str(); }

    template <typename T>
    std::optional<T> read(bool required) const {
        static_assert(std::is_same_v<T, std::string> || detail::is_number<T>,
                      "a value is read as std::string, bool, integer, float or double");
        // The library is always told that the value is required: only so a 0 is told from nothing.
        int result = ZPROP_OK;
        std::optional<T> found;
        if constexpr (std::is_same_v<T, std::string>) {
            char* text = zstzPropGetStringValue(raw(), stanza(), c_str(), 1, &result);
            if (text != nullptr)
                found = detail::taken(text, std::char_traits<char>::length(text));
        } else if constexpr (std::is_same_v<T, bool>) {
            found = zstzPropGetBooleanValue(raw(), stanza(), c_str(), 1, &result) != 0;
        } else if constexpr (std::is_floating_point_v<T>) {
            const double number = zstzPropGetDoubleValue(raw(), stanza(), c_str(), 1, &result);
            if (std::isfinite(number) && std::abs(number) > std::numeric_limits<T>::max())
                raiseOutOfRange();
            found = static_cast<T>(number);
        } else {
            const std::int64_t number = zstzPropGetInt64Value(raw(), stanza(), c_str(), 1, &result);
            if (result == ZPROP_OK && !detail::has_room<T>(number))
                raiseOutOfRange();
            found = static_cast<T>(number);
        }
        if (result == ZPROP_ERR_MISSING && !required)
            return std::nullopt;
        detail::check(result);
        return found;
    }

    [[noreturn]] void raiseOutOfRange() const {
        const char* path = zstzPropPath(raw());
        throw bad_value(ZPROP_ERR_VALUE, 0, path == nullptr ? "" : path, 0,
                        "out of range: " + value().value_or(""));
    }

    template <typename T>
    void setInteger(T value) {
        if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t))
            if (value > static_cast<T>(std::numeric_limits<std::int64_t>::max()))
                throw bad_value(ZPROP_ERR_VALUE, 0, {}, 0,
                                "out of range: " + std::to_string(value));
        detail::check(
            zstzPropSetInt64Value(raw(), stanza(), c_str(), static_cast<std::int64_t>(value)));
    }

    detail::handle handle_;
    std::string stanza_;
    std::string name_;
};

/// A forward iterator over the keys of a stanza or the stanzas of a file, as they were when begin()
/// was called: whatever is changed meanwhile, the walk goes on. What it points at is good as long
/// as an iterator of the walk is.
template <typename Member>
class iterator {
public:
    using iterator_category = std::forward_iterator_tag;  ///< for the standard library
    using value_type = Member;                            ///< likewise
    using difference_type = std::ptrdiff_t;               ///< likewise
    using pointer = const Member*;                        ///< likewise
    using reference = const Member&;                      ///< likewise

    /// The end of any walk.
    iterator() noexcept = default;
    /// The begin of a walk over these.
    explicit iterator(std::vector<Member> members)
        : members_(std::make_shared<const std::vector<Member>>(std::move(members))) {}

    /// The member at the walk's place.
    reference operator*() const noexcept { return (*members_)[place_]; }
    /// Likewise.
    pointer operator->() const noexcept { return &**this; }
    /// Moves on.
    iterator& operator++() noexcept {
        ++place_;
        return *this;
    }
    /// Likewise.
    iterator operator++(int) noexcept {
        iterator before = *this;
        ++place_;
        return before;
    }

    /// Whether both stand at one place of their walk. Two walks over one thing compare as one.
    friend bool operator==(const iterator& a, const iterator& b) noexcept {
        return a.isAtEnd() ? b.isAtEnd() : !b.isAtEnd() && a.place_ == b.place_;
    }
    /// Likewise.
    friend bool operator!=(const iterator& a, const iterator& b) noexcept { return !(a == b); }

private:
    bool isAtEnd() const noexcept { return members_ == nullptr || place_ == members_->size(); }

    std::shared_ptr<const std::vector<Member>> members_;
    std::size_t place_ = 0;
};

/// A stanza by its name, whether it is there or not, and the range of its keys.
///
/// A const stanza gives const keys, which read only; a copy of one isn't bound by that.
class stanza {
public:
    /// What it is called.
    const std::string& name() const noexcept { return name_; }
    /// Whether it is there.
    bool exists() const { return detail::ask(&zstzPropExists, raw(), c_str(), kNoKey) != 0; }
    /// Whether it has this key.
    bool contains(std::string_view name) const { return (*this)[name].exists(); }
    /// The number of keys.
    std::size_t size() const {
        return static_cast<std::size_t>(detail::ask(&zstzPropNumKeys, raw(), c_str()));
    }

    /// The key of this name; nothing is made.
    key operator[](std::string_view name) { return key(handle_, name_, detail::plain(name)); }
    /// Likewise, to read.
    const key operator[](std::string_view name) const {
        return key(handle_, name_, detail::plain(name));
    }

    /// The keys in the order of the file.
    std::vector<key> keys() const {
        char** names = nullptr;
        detail::check(zstzPropGetKeys(raw(), c_str(), &names));
        std::vector<key> all;
        for (std::string& name : detail::taken(names))
            all.push_back(key(handle_, name_, std::move(name)));
        return all;
    }
    /// A walk over them.
    iterator<key> begin() const { return iterator<key>(keys()); }
    /// Its end.
    iterator<key> end() const noexcept { return {}; }

    /// Removes a key with its values. Nothing happens where it isn't there.
    void erase(std::string_view name) { (*this)[name].erase(); }
    /// Removes the stanza with its keys, likewise.
    void erase() { detail::check(zstzPropRemoveStanza(raw(), c_str())); }

    /// The comments directly below its header, a line each.
    std::vector<std::string> comments() const { return detail::comments(handle_, c_str(), kNoKey); }
    /// Adds a comment behind those; makes the stanza as needed. "#" is put in front of the text if
    /// it isn't there.
    void add_comment(std::string_view text) {
        detail::check(zstzPropAddStanzaComment(raw(), c_str(), detail::plain(text).c_str()));
    }
    /// Removes what comments() gives.
    void erase_comments() { detail::check(zstzPropRemoveComments(raw(), c_str(), kNoKey)); }

private:
    friend class file;

    static constexpr const char* kNoKey = nullptr;

    stanza(detail::handle handle, std::string name) noexcept
        : handle_(std::move(handle)), name_(std::move(name)) {}

    ZPROP_handle* raw() const noexcept { return handle_.get(); }
    const char* c_str() const noexcept { return name_.c_str(); }

    detail::handle handle_;
    std::string name_;
};

// ---------------------------------------------------------------- files

/// What a store does about failures; zstoremodes.h tells more.
enum class store_mode {
    plain = ZPROP_STORE_PLAIN,      ///< no result is looked at
    checked = ZPROP_STORE_CHECKED,  ///< every result is looked at, and room is secured first
    safe = ZPROP_STORE_SAFE         ///< that, and a crash leaves the old or the new content
};

/// How a file that is another program's spells stanzas, keys and values. Comments and other lines
/// of such a file stay as they are, and what can't be said in it is refused. zdialect.h tells more.
///
///     zbase::options how;
///     how.dialect = zbase::dialect("php");
///     zbase::file ini("php.ini", how);
class dialect {
public:
    /// The preset of this name. Raises file_error without it, bad_data for a bad one.
    explicit dialect(std::string_view preset) : dialect() {
        detail::set_up();
        detail::check(zstzDialect_get(detail::plain(preset).c_str(), &switches_));
    }
    /// With switches of one's own. Raises error with ZPROP_ERR_PARAM for those that clash.
    explicit dialect(const ZDialect& switches) : switches_(switches) {
        const char *first = nullptr, *second = nullptr;
        zstzDialect_clash(&switches, &first, &second);
        if (first != nullptr)
            throw error(ZPROP_ERR_PARAM, 0, {}, 0, std::string(first) + " " + second);
        switches_.size = sizeof switches_;  // what a later version may have added is zero
    }
    /// The switches.
    const ZDialect& native() const noexcept { return switches_; }

    /// Name and description of each preset, by name. Raises file_error, bad_data.
    static std::vector<std::pair<std::string, std::string>> presets() {
        detail::set_up();
        std::vector<std::pair<std::string, std::string>> all;
        auto add = [&](const char* name, const char* text) { all.emplace_back(name, text); };
        detail::caught<decltype(add)> guarded(add);
        const int result = zstzDialect_forEach(&tell<decltype(add)>, &guarded);
        guarded.rethrow();
        detail::check(result);
        return all;
    }
    /// The name of the preset for a path, by the patterns that presets have; none where none fits.
    /// The file isn't looked at. Raises as presets().
    static std::optional<std::string> preset_of(std::string_view path) {
        detail::set_up();
        char *name = nullptr, *pattern = nullptr;
        detail::check(zstzDialect_ofFile(detail::plain(path).c_str(), &name, &pattern));
        const std::unique_ptr<char, decltype(&zstzPropFree)> first(name, &zstzPropFree),
            second(pattern, &zstzPropFree);
        return name == nullptr ? std::nullopt : std::make_optional<std::string>(name);
    }

private:
    dialect() noexcept : switches_() { switches_.size = sizeof switches_; }

    template <typename Add>
    static int tell(void* guarded, const char* name, const char* text) {
        return static_cast<detail::caught<Add>*>(guarded)->run([&](Add& add) { add(name, text); })
                   ? 0
                   : 1;
    }

    ZDialect switches_;
};

/// How a file is opened.
struct options {
    bool strict = true;                   ///< what a load wouldn't give back is refused
    bool keep_lines = true;               ///< lines of unchanged values keep their bytes
    store_mode store = store_mode::safe;  ///< how it is stored
    std::chrono::milliseconds wait = std::chrono::seconds(10);  ///< how long for the file's lock
    std::optional<zbase::dialect> dialect = std::nullopt;       ///< none: the library's own
};

/// What file::for_each tells: a stanza where `key` is none, a key without values where `value` is,
/// else one value. The texts are good during the call.
struct entry {
    std::string_view stanza;                ///< its name
    std::optional<std::string_view> key;    ///< its name, or none
    std::optional<std::string_view> value;  ///< or none
    bool hidden;  ///< whether the value stands in the side database and not in the text
};

/// A stanza file in memory, and the range of its stanzas. Changes stay in memory until store() or
/// the commit of an update.
class file {
public:
    /// Opens and loads `path`, comments kept. Raises file_error, bad_data, locked.
    explicit file(std::string_view path, const options& how = {}) : wait_(how.wait) {
        detail::set_up();
        ZPROP_handle* opened = nullptr;
        detail::check(zstzPropOpenDialect(
            &opened, detail::plain(path).c_str(), ZPROP_OPEN_UPDATE, switches(how), attributes(how),
            static_cast<int>(how.store), detail::milliseconds(how.wait)));
        handle_ = detail::own(opened);
    }

    /// From bytes in place of a file, of none to begin with an empty one. It has no path, so that
    /// stores need one, and is stored plainly and without waiting, whatever `how` says: for safe
    /// stores and for updates open what it was stored to. Raises bad_data.
    static file from_bytes(std::string_view bytes, const options& how = {}) {
        detail::set_up();
        ZPROP_handle* opened = nullptr;
        detail::check(zstzPropOpenDialectBytes(&opened, bytes.data(), bytes.size(), switches(how),
                                               attributes(how)));
        return file(detail::own(opened), how.wait);
    }

    /// Puts what the bytes say in place of all that the file has in memory. A failure, bad_data,
    /// changes nothing.
    void load_bytes(std::string_view bytes) {
        detail::check(zstzPropLoadBytes(native(), bytes.data(), bytes.size()));
    }
    /// What a store into an empty file would write. Hidden values aren't among it.
    std::string to_bytes() const {
        char* bytes = nullptr;
        std::size_t length = 0;
        detail::check(zstzPropStoreBytes(native(), &bytes, &length));
        return detail::taken(bytes, length);
    }

    /// Writes to the path that it was opened with, or to another. Raises file_error; error with
    /// ZPROP_ERR_PARAM while the thread has an update of it open, which couldn't take it back then:
    /// that one's commit() stores.
    void store() {
        requireNoUpdate();
        detail::check(zstzPropStore(native(), nullptr));
    }
    /// Likewise, but to another path also in an update.
    void store(std::string_view path) {
        if (path.empty() || path == this->path())
            requireNoUpdate();
        detail::check(zstzPropStore(native(), detail::plain(path).c_str()));
    }
    /// In which way the last store was made: store_mode::checked in place of safe where what a safe
    /// one writes beside the file can't be given the file's owner, group and access.
    store_mode last_store_mode() const {
        int mode = 0;
        detail::check(zstzPropLastStoreMode(native(), &mode));
        return static_cast<store_mode>(mode);
    }

    /// The path that it was opened with; empty without one.
    std::string path() const {
        const char* path = zstzPropPath(native());
        return path == nullptr ? std::string() : std::string(path);
    }
    /// Whether something was changed since the last load or store.
    bool modified() const noexcept { return zstzPropIsModified(native()) != 0; }
    /// How long its loads and stores, and updates that aren't told otherwise, wait for the lock.
    std::chrono::milliseconds wait() const noexcept { return wait_; }
    /// The handle of the C interface, for its other calls. It belongs to the file; null where the
    /// file was moved from.
    ZPROP_handle* native() const noexcept { return handle_.get(); }

    /// Whether it has this stanza.
    bool contains(std::string_view name) const { return (*this)[name].exists(); }
    /// The number of stanzas.
    std::size_t size() const {
        return static_cast<std::size_t>(detail::ask(&zstzPropNumStanzas, native()));
    }

    /// The stanza of this name; nothing is made.
    stanza operator[](std::string_view name) { return stanza(handle_, detail::plain(name)); }
    /// Likewise, to read.
    const stanza operator[](std::string_view name) const {
        return stanza(handle_, detail::plain(name));
    }

    /// The stanzas in the order of the file.
    std::vector<stanza> stanzas() const {
        char** names = nullptr;
        detail::check(zstzPropGetStanzas(native(), &names));
        std::vector<stanza> all;
        for (std::string& name : detail::taken(names))
            all.push_back(stanza(handle_, std::move(name)));
        return all;
    }
    /// A walk over them.
    iterator<stanza> begin() const { return iterator<stanza>(stanzas()); }
    /// Its end.
    iterator<stanza> end() const noexcept { return {}; }

    /// Calls `visit` with an entry for each stanza, and behind it for each of its keys or, where a
    /// key has values, for each of those: all in the order of the file, as of one moment. It may
    /// make any call. Where it gives a bool, false ends the walk; what it raises does too, and
    /// comes out of here.
    template <typename Visit>
    void for_each(Visit&& visit) const {
        using visitor = std::remove_reference_t<Visit>;
        detail::caught<visitor> guarded(visit);
        const int result = zstzPropForEach(native(), &tell<visitor>, &guarded);
        guarded.rethrow();
        detail::check(result);
    }

    /// Removes a stanza with its keys. Nothing happens where it isn't there.
    void erase(std::string_view name) { (*this)[name].erase(); }

    /// The comments at the top of the file, a line each.
    std::vector<std::string> comments() const {
        return detail::comments(handle_, nullptr, nullptr);
    }
    /// Adds a comment at the end of the file's first paragraph. "#" is put in front of the text if
    /// it isn't there.
    void add_comment(std::string_view text) {
        detail::check(zstzPropAddFileComment(native(), detail::plain(text).c_str()));
    }
    /// Removes what comments() gives.
    void erase_comments() { detail::check(zstzPropRemoveComments(native(), nullptr, nullptr)); }

private:
    friend class update;
    friend class watch;

    void requireNoUpdate() const {
        if (detail::updates_here(handle_))
            throw error(ZPROP_ERR_PARAM, 0, path(), 0, "an update is open, whose commit() stores");
    }

    file(detail::handle handle, std::chrono::milliseconds wait) noexcept
        : handle_(std::move(handle)), wait_(wait) {}

    static const ZDialect* switches(const options& how) noexcept {
        return how.dialect ? &how.dialect->native() : nullptr;
    }

    static unsigned long attributes(const options& how) noexcept {
        return static_cast<unsigned long>(ZPCACHE_KEEP_COMMENTS) |
               static_cast<unsigned long>(how.strict ? ZPCACHE_STRICT : 0) |
               static_cast<unsigned long>(how.keep_lines ? ZPCACHE_KEEP_LINES : 0);
    }

    template <typename Visitor>
    static int tell(void* guarded, const ZPROP_entry* told) {
        bool goesOn = true;
        const bool ran = static_cast<detail::caught<Visitor>*>(guarded)->run([&](Visitor& visit) {
            entry now{told->stanza, {}, {}, told->hidden != 0};
            if (told->key != nullptr)
                now.key = told->key;
            if (told->value != nullptr)
                now.value = told->value;
            if constexpr (std::is_same_v<decltype(visit(std::as_const(now))), bool>)
                goesOn = visit(std::as_const(now));
            else
                visit(std::as_const(now));
        });
        return ran && goesOn ? 0 : 1;
    }

    detail::handle handle_;
    std::chrono::milliseconds wait_;
};

// ---------------------------------------------------------------- shared edits

/// From its construction to commit() no other writer gets at the file, and other threads wait at
/// any call with it; what is changed meanwhile is what the file holds. Without the commit the
/// destructor takes everything back. The thread that began an update ends it, too.
class update {
public:
    /// Locks the file, waiting as long as the file's options say, and reads it anew. Raises locked;
    /// error with ZPROP_ERR_UNSAVED if it has no path, unsaved changes or an update open already;
    /// file_error.
    explicit update(file& of) : update(of, of.wait()) {}
    /// Likewise, waiting up to `wait`.
    update(file& of, std::chrono::milliseconds wait) {
        detail::check(zstzPropBegin(of.native(), detail::milliseconds(wait)));
        handle_ = of.handle_;
        detail::set_updater(handle_, std::this_thread::get_id());
    }
    /// The other has none open then; what this one had is taken back.
    update(update&& other) noexcept = default;
    update& operator=(update&& other) noexcept {
        if (this != &other) {
            takeBack();
            handle_ = std::move(other.handle_);
        }
        return *this;
    }
    ~update() { takeBack(); }

    /// Whether it is open still.
    bool is_open() const noexcept { return handle_ != nullptr; }

    /// Stores and ends the update. Raises file_error, and the update is still open then; error with
    /// ZPROP_ERR_NO_UPDATE if it isn't.
    void commit() {
        if (handle_ == nullptr)
            throw error(ZPROP_ERR_NO_UPDATE, 0, {}, 0, "no update is open");
        detail::check(zstzPropCommit(handle_.get()));
        forget();
    }
    /// Forgets what was changed, and ends the update. Nothing happens if it isn't open.
    void rollback() {
        if (handle_ == nullptr)
            return;
        const detail::handle file = handle_;  // closed here at the earliest, behind the report
        const int result = zstzPropRollback(file.get());
        if (result != ZPROP_ERR_NO_UPDATE)  // as in a thread that isn't the update's
            forget();
        detail::check(result);
    }

private:
    // As rollback, for where nothing can be raised.
    void takeBack() noexcept {
        if (handle_ != nullptr)
            zstzPropRollback(handle_.get());
        forget();
    }

    void forget() noexcept {
        if (handle_ != nullptr)
            detail::set_updater(handle_, std::thread::id());
        handle_.reset();
    }

    detail::handle handle_;  // null where none is open
};

/// What has become of a key or stanza.
enum class change_kind {
    added = ZPROP_ADDED,       ///< it wasn't there before
    deleted = ZPROP_DELETED,   ///< it isn't there any more
    modified = ZPROP_MODIFIED  ///< a key that has other values
};

/// What watch::process tells.
struct change {
    change_kind kind;                ///< what has become of it
    std::string stanza;              ///< the stanza's name
    std::optional<std::string> key;  ///< the key's name; none where it is about the stanza
};

/// Watches a file for other processes' stores. One thread at a time may call with a watch.
class watch {
public:
    /// Begins to watch. Raises file_error if there are no descriptors left.
    explicit watch(const file& of) {
        ZPROP_watch_handle* opened = nullptr;
        detail::check(zstzPropWatch_open(of.native(), &opened));
        // The closer keeps the file, which has to be closed behind its watch in moves, too.
        handle_ = {opened, closer{of.handle_}};
    }

    /// A descriptor for poll, readable when process() has something to do. It belongs to the watch.
    int descriptor() const noexcept { return zstzPropWatch_fd(handle_.get()); }

    /// How long a file that somebody writes to, and hasn't closed, must have got no byte before it
    /// is read: 50 milliseconds at first; 0 waits for nobody.
    void settling_time(std::chrono::milliseconds time) {
        detail::check(zstzPropWatch_setSettlingTime(handle_.get(), detail::milliseconds(time)));
    }

    /// Looks, without waiting, whether the file has other content than the object in memory. If so,
    /// loads it and calls `changed` with a change once for each key that was added, deleted or has
    /// other values and for each stanza that came or went, and returns the number of these. 0 while
    /// there are unsaved changes or an update is open, or a writer holds the file; the next call
    /// tries again. Raises file_error and bad_data. What `changed` raises comes out of here; it
    /// isn't called any more then, while the new content is in memory.
    template <typename Changed>
    int process(Changed&& changed) {
        using teller = std::remove_reference_t<Changed>;
        detail::caught<teller> guarded(changed);
        int result = ZPROP_OK;
        const int count = zstzPropWatch_process(handle_.get(), &tell<teller>, &guarded, &result);
        guarded.rethrow();
        detail::check(result);
        return count;
    }
    /// The same, and tells nobody.
    int process() {
        return process([](const change&) {});
    }

private:
    struct closer {
        detail::handle file;
        void operator()(ZPROP_watch_handle* watch) const noexcept { zstzPropWatch_close(watch); }
    };

    template <typename Teller>
    static void tell(void* guarded, const char* stanza, const char* key, int kind) {
        static_cast<detail::caught<Teller>*>(guarded)->run([&](Teller& changed) {
            change now{static_cast<change_kind>(kind), stanza, {}};
            if (key != nullptr)
                now.key = key;
            changed(std::as_const(now));
        });
    }

    std::unique_ptr<ZPROP_watch_handle, closer> handle_;
};

}  // namespace zbase

#if __cplusplus >= 202002L
// An iterator keeps what it walks over, and is good where its range was a passing object.
template <>
inline constexpr bool std::ranges::enable_borrowed_range<zbase::stanza> = true;
template <>
inline constexpr bool std::ranges::enable_borrowed_range<zbase::file> = true;
#endif

#endif
