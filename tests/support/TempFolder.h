// TempFolder.h: a fresh folder that goes with its test.
#ifndef TESTS_SUPPORT_TEMPFOLDER_H
#define TESTS_SUPPORT_TEMPFOLDER_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

class TempFolder {
public:
    TempFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "zbase-test-XXXXXX").string();
        if (mkdtemp(&name[0]) == nullptr)
            abort();
        path_ = name;
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    /// The path of a name in the folder.
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

    /// Writes a file; its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(*this / name, std::ios::binary) << text;
        return *this / name;
    }

    /// The same, as another file that takes its place.
    std::string replace(const std::string& name, const std::string& text) const {
        rename(write(name + ".new", text).c_str(), (*this / name).c_str());
        return *this / name;
    }

    /// What lies in the folder.
    std::set<std::string> names() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            names.insert(entry.path().filename().string());
        return names;
    }

    /// A file's bytes; "<none>" if it can't be read.
    static std::string read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        if (!in)
            return "<none>";
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

private:
    std::string path_;
};

#endif
