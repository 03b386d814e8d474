// json.cpp: text as JSON.
#include "zstz.h"

// How many bytes the character at `at` has in UTF-8; 0 if none is there.
static size_t characterAt(const std::string& text, size_t at) {
    const auto byte = [&](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
    };
    const unsigned int first = byte(at), second = byte(at + 1);
    if (first < 0x80)
        return 1;
    // What is too long, a surrogate or beyond the last character shows in the second byte.
    const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    const unsigned int least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned int most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (first < 0xC2 || first > 0xF4 || second < least || second > most)
        return 0;
    for (size_t i = 2; i < size; ++i)
        if ((byte(at + i) & 0xC0) != 0x80)
            return 0;
    return size;
}

static bool isUTF8(const std::string& text) {
    for (size_t at = 0, size; at < text.size(); at += size)
        if ((size = characterAt(text, at)) == 0)
            return false;
    return true;
}

static std::string base64(const std::string& bytes) {
    static const char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t at = 0; at < bytes.size(); at += 3) {
        const size_t count = bytes.size() - at < 3 ? bytes.size() - at : 3;
        unsigned int group = 0;
        for (size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0);
        for (size_t i = 0; i < 4; ++i)
            out += i <= count ? kDigits[group >> (18 - 6 * i) & 63] : '=';
    }
    return out;
}

static std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        char code[8];
        if (c == '"' || c == '\\') {
            (out += '\\') += c;
        } else if (c == '\t') {
            out += "\\t";
        } else if (static_cast<unsigned char>(c) < 0x20) {
            snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned int>(c));
            out += code;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string jsonOf(const std::string& text) {
    return isUTF8(text) ? quoted(text) : "{\"bytes\": \"" + base64(text) + "\"}";
}

std::string jsonNameOf(const std::string& name) {
    return isUTF8(name) ? quoted(name) : "\"\\u0000" + base64(name) + "\"";
}

static std::string jsonListOf(const Words& values, const std::string& before,
                              const std::string& behind) {
    std::string out = "[";
    for (const std::string& value : values)
        out += (out.size() > 1 ? ", " : "") + before + jsonOf(value) + behind;
    return out + "]";
}

std::string jsonList(const Words& values) { return jsonListOf(values, "", ""); }

std::string jsonOfNone(bool isBare) { return isBare ? "{\"bare\": true}" : "null"; }

std::string jsonOfValues(const Words& values, bool areHidden) {
    if (values.empty())
        return jsonOfNone(false);
    const std::string list =
        areHidden ? jsonListOf(values, "{\"hidden\": ", "}") : jsonListOf(values, "", "");
    return values.size() > 1 ? list : list.substr(1, list.size() - 2);
}
