#include "vpc_file.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nasctrl/base.h>
#include <stdexcept>
#include <sys/types.h>

// <fcntl.h> brings an open of its own in fortified builds, so what is needed of it stands here.
#define ACCESS_MODE 3
#define CREATE 0100

namespace {

constexpr char kVpcFile[] = "/opt/dr/config/vpc.local.conf";

// The place of the one VpcFile that is alive.
std::string g_place;
int g_refused = 0;

const char *placeOf(const char *path)
{
    return !g_place.empty() && strcmp(path, kVpcFile) == 0 ? g_place.c_str() : path;
}

bool isRefused(const char *path, int flags)
{
    return g_refused != 0 && strcmp(path, kVpcFile) == 0 && (flags & ACCESS_MODE) != 0;
}

template <typename Function>
Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" NASCTRL_API int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & CREATE) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (isRefused(path, flags)) {
        errno = g_refused;
        return -1;
    }
    static auto *const real = next<int(const char *, int, ...)>("open");
    return real(placeOf(path), flags, mode);
}

extern "C" NASCTRL_API FILE *fopen(const char *path, const char *mode)
{
    static auto *const real = next<FILE *(const char *, const char *)>("fopen");
    return real(placeOf(path), mode);
}

VpcFile::VpcFile() : folder_("/tmp/nasctrl-vpc.XXXXXX")
{
    if (mkdtemp(folder_.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    path_ = folder_ + "/vpc.local.conf";
    g_place = path_;
    g_refused = 0;
}

VpcFile::~VpcFile()
{
    g_place.clear();
    std::filesystem::remove_all(folder_);
}

void VpcFile::write(const std::string &text) const
{
    std::ofstream(path_, std::ios::binary) << text;
}

void VpcFile::append(const std::string &text) const
{
    std::ofstream(path_, std::ios::binary | std::ios::app) << text;
}

std::string VpcFile::read() const
{
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void VpcFile::remove() const
{
    std::filesystem::remove_all(path_);
}

void VpcFile::refuseWriting(int error) const
{
    g_refused = error;
}
