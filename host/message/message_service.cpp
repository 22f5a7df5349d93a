#include "message/message_service.h"

#include "message/counters.h"
#include "message/dispatch.h"
#include "message/server.h"
#include "message/storage_client.h"
#include <algorithm>
#include <optional>
#include <stdexcept>
#include <sys/resource.h>

namespace host {

namespace {

std::mutex serviceLock; // start and stop
std::unique_ptr<Server> server;

// A descriptor per client: as many as this process may have.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void clearCounters()
{
    counters.accepted = 0;
    counters.messages = 0;
    counters.replies = 0;
    counters.malformed = 0;
    counters.undelivered = 0;
}

} // namespace

void startMessageService(const MessageSettings &settings)
{
    const std::scoped_lock hold(serviceLock);
    if (server) {
        throw std::runtime_error("message service: it runs already");
    }
    raiseDescriptorLimit();
    clearCounters();
    try {
        server = std::make_unique<Server>(settings.socketPath, std::clamp(settings.clients, 1U, kMaxMessageClients));
    } catch (const std::exception &error) {
        throw std::runtime_error(std::string("message service: ") + error.what());
    }
    configureStorageClient(settings.storageSocketPath, settings.storageTimeout, settings.nodeId);
}

void stopMessageService()
{
    const std::scoped_lock hold(serviceLock);
    server.reset();
    configureStorageClient({}, {}, IpcGetLocalNid());
}

MessageCounters messageCounters()
{
    return {.connections = counters.connections,
            .accepted = counters.accepted,
            .messages = counters.messages,
            .replies = counters.replies,
            .malformed = counters.malformed,
            .undelivered = counters.undelivered};
}

} // namespace host
