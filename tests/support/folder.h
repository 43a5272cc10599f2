// A folder of its own for a test, removed with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/stat.h>

struct Folder {
    Folder() {
        if (mkdtemp(path.data()) == nullptr)
            std::abort();
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    std::string operator/(const std::string &name) const { return path + "/" + name; }
    std::string write(const std::string &name, const std::string &content, mode_t mode = 0644) const {
        std::ofstream(*this / name) << content;
        chmod((*this / name).c_str(), mode);
        return *this / name;
    }
    std::string path = "/tmp/zyn-test-XXXXXX";
};
