/*
 * A program tells that it is ready: on standard output, to a descriptor, and to a service manager's socket.
 */
#include <common/ready.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <support/process.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using common::tellReady;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kLine = "prog: is ready\n";

// The datagram socket of a service manager.
class Manager {
public:
    explicit Manager(const std::string &name)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), length), 0);
    }
    ~Manager() { close(socket_); }
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    // What has arrived; empty when nothing has.
    std::string told() const
    {
        std::array<char, 64> state{};
        const ssize_t length = recv(socket_, state.data(), state.size(), MSG_DONTWAIT);
        return {state.data(), length < 0 ? 0 : static_cast<size_t>(length)};
    }

private:
    int socket_ = socket(AF_UNIX, SOCK_DGRAM, 0);
};

class Ready : public testing::Test {
protected:
    Ready() { unsetenv("NOTIFY_SOCKET"); }
    ~Ready() override
    {
        unsetenv("NOTIFY_SOCKET");
        std::filesystem::remove_all(directory_);
    }
    static void manager(const std::string &name) { setenv("NOTIFY_SOCKET", name.c_str(), 1); }

    std::filesystem::path directory_ =
        std::filesystem::temp_directory_path() / ("ready_test." + std::to_string(getpid()));
    std::string socket_ = (std::filesystem::create_directory(directory_), directory_ / "notify");
};

TEST_F(Ready, IsALineOnStandardOutput)
{
    testing::internal::CaptureStdout();
    const auto failures = tellReady(kLine, std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kLine);
    EXPECT_THAT(failures, IsEmpty());
}

TEST_F(Ready, IsALineToTheDescriptorAndItsEnd)
{
    const support::Pipe pipe;
    EXPECT_THAT(tellReady(kLine, pipe.write), IsEmpty());
    EXPECT_EQ(support::readAll(pipe.read), kLine);
    EXPECT_EQ(fcntl(pipe.write, F_GETFD), -1);
}

TEST_F(Ready, DescriptorThatCannotBeWrittenIsToldOf)
{
    const int descriptor = open("/dev/null", O_RDONLY);
    EXPECT_THAT(tellReady(kLine, descriptor),
                ElementsAre("--ready-fd " + std::to_string(descriptor) + " cannot be written"));
}

TEST_F(Ready, ServiceManagerIsTold)
{
    const Manager listening(socket_);
    manager(socket_);
    EXPECT_THAT(tellReady(kLine, std::nullopt), IsEmpty());
    EXPECT_EQ(listening.told(), "READY=1");
    EXPECT_EQ(listening.told(), "");
}

TEST_F(Ready, ServiceManagerMayHaveAnAbstractName)
{
    const std::string name = "@ready_test." + std::to_string(getpid());
    const Manager listening(name);
    manager(name);
    EXPECT_THAT(tellReady(kLine, std::nullopt), IsEmpty());
    EXPECT_EQ(listening.told(), "READY=1");
}

TEST_F(Ready, ServiceManagerThatIsNotThereIsToldOf)
{
    manager(socket_);
    EXPECT_THAT(tellReady(kLine, std::nullopt), ElementsAre("the service manager cannot be told at " + socket_));
}

TEST_F(Ready, ServiceManagerWithANameTooLongForASocketIsToldOf)
{
    const std::string name(sizeof(sockaddr_un::sun_path), 'n');
    manager(name);
    EXPECT_THAT(tellReady(kLine, std::nullopt), ElementsAre("the service manager cannot be told at " + name));
}

TEST_F(Ready, ServiceManagerWithoutANameIsNone)
{
    manager("");
    EXPECT_THAT(tellReady(kLine, std::nullopt), IsEmpty());
}

} // namespace
