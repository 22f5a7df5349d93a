/*
 * A folder that lives as long as a test.
 */
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

class TempDir {
public:
    TempDir()
    {
        char name[] = "/tmp/nasctrl-test-XXXXXX";
        path_ = mkdtemp(name);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string file(const std::string &name) const { return path_ + "/" + name; }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};
