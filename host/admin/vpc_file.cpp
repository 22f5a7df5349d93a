#include "admin/vpc_file.h"

#include "admin/answer.h"
#include "node.h"
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace host::admin {

namespace {

constexpr const char *kVpcFile = "/opt/dr/config/vpc.local.conf";
constexpr mode_t kOwnerOnly = 0600;

[[noreturn]] void refuse(const char *what, int error, unsigned status = kInternalError)
{
    throw CallError(status, vpcFileName() + " cannot be " + what + ": " + std::generic_category().message(error));
}

class OpenFile {
public:
    explicit OpenFile(int flags) : fd_(open(kVpcFile, flags | O_CLOEXEC, kOwnerOnly)) {}
    ~OpenFile()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    [[nodiscard]] int fd() const { return fd_; }

private:
    int fd_;
};

} // namespace

std::string vpcFileName()
{
    return nodeIdentity().root + kVpcFile;
}

std::string readVpcFile()
{
    const OpenFile file(O_RDONLY);
    if (file.fd() < 0) {
        refuse("read", errno, errno == ENOENT ? kNotFound : kInternalError);
    }
    std::array<char, 4096> part{};
    std::string text;
    ssize_t count = 0;
    while ((count = read(file.fd(), part.data(), part.size())) > 0) {
        text.append(part.data(), static_cast<size_t>(count));
    }
    if (count < 0) {
        refuse("read", errno);
    }
    return text;
}

void checkVpcFileWritable()
{
    const OpenFile file(O_WRONLY | O_CREAT);
    if (file.fd() < 0) {
        refuse("written", errno);
    }
}

} // namespace host::admin
