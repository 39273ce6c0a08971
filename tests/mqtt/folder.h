// A folder of a test's own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

class Folder
{
public:
    Folder()
    {
        if (mkdtemp(path_.data()) == nullptr) std::abort();
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::string& Path() const { return path_; }

private:
    std::string path_ = "/tmp/voqXXXXXX";
};
