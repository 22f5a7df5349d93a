/*
 * The library's VPC file at a place of the test's own: a program with vpc_file.cpp in it has an open and an fopen that
 * stand before those of the C library and lead the file's fixed path into a temporary folder.
 */
#pragma once

#include <string>

class VpcFile {
public:
    // No file at first. One at a time in a program.
    VpcFile();
    ~VpcFile();
    VpcFile(const VpcFile &) = delete;
    VpcFile &operator=(const VpcFile &) = delete;

    // Where it is led to.
    const std::string &path() const { return path_; }
    void write(const std::string &text) const;
    void append(const std::string &text) const;
    // "" without a file.
    std::string read() const;
    void remove() const;
    // From now on opening it for writing fails with this errno, as that of a read-only file does.
    void refuseWriting(int error) const;

private:
    std::string folder_;
    std::string path_;
};
