/*
 * One message of module 18, client to reply, beside a bare echo of the same size over the same kind of socket. Both
 * sides of each run in this process, on threads of their own; the client is the same blocking code for both.
 */
#include "message/message_service.h"
#include "platform/log.h"
#include "socket_echo.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstring>
#include <nasctrl/nasctrl.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr size_t kHeader = 24;
constexpr size_t kNotice = 516;

std::string frame(uint32_t opcode, const std::string &payload)
{
    const std::array<uint32_t, 6> header = {static_cast<uint32_t>(20 + payload.size()), 18, opcode, 1, 0, 0};
    return std::string(reinterpret_cast<const char *>(header.data()), sizeof header) + payload;
}

int connectTo(const std::string &path)
{
    const int result = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    std::strncpy(target.sun_path, path.c_str(), sizeof target.sun_path - 1);
    if (connect(result, reinterpret_cast<const sockaddr *>(&target), sizeof target) != 0) {
        throw std::runtime_error("connect");
    }
    return result;
}

// The service of a real node, with the library behind it, once for all benchmarks.
const std::string &serviceSocket()
{
    static const std::string path = [] {
        const std::string directory = bench::temporaryDirectory();
        host::LogSettings log;
        log.console = false;
        log.file = directory + "/node.log";
        host::openLog(log);
        host::MessageSettings settings;
        settings.socketPath = directory + "/message.sock";
        host::startMessageService(settings);
        nas_ctrl_init();
        HdfsGetIpRegister();
        return settings.socketPath;
    }();
    return path;
}

void bareEcho(benchmark::State &state)
{
    bench::measureBareEcho(state, kHeader + kNotice, kHeader + kNotice);
}
BENCHMARK(bareEcho)->UseManualTime()->Iterations(50000);

void noticeCall(benchmark::State &state, uint32_t threshold)
{
    const int client = connectTo(serviceSocket());
    host::setLogThreshold(threshold);
    std::string notice(kNotice, '\0');
    std::strcpy(&notice[4], "notify_eds_change_ip");
    bench::measureExchange(state, client, frame(1, notice), kHeader + kNotice);
    close(client);
}
BENCHMARK_CAPTURE(noticeCall, errorsLogged, NASCTRL_LOG_ERROR)->UseManualTime()->Iterations(50000);
BENCHMARK_CAPTURE(noticeCall, everythingLogged, NASCTRL_LOG_INFO)->UseManualTime()->Iterations(50000);

// Opcode 2: the same request size, a fixed 8-byte reply, nothing logged.
void fixedReplyCall(benchmark::State &state)
{
    const int client = connectTo(serviceSocket());
    bench::measureExchange(state, client, frame(2, std::string(kNotice, 'x')), kHeader + 8);
    close(client);
}
BENCHMARK(fixedReplyCall)->UseManualTime()->Iterations(50000);

} // namespace
