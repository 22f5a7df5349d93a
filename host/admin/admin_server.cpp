#include "admin/admin_server.h"

#include "admin/routes.h"
#include "admin/server.h"
#include "notify/events.h"
#include <memory>
#include <mutex>
#include <stdexcept>

namespace host {

namespace {

std::mutex s_lock;
std::unique_ptr<admin::Server> s_server;

} // namespace

void startAdminServer(const std::string &socketPath)
{
    const std::lock_guard guard(s_lock);
    if (s_server) {
        throw std::runtime_error("admin server: it runs already");
    }
    admin::ServerSettings settings;
    settings.socketPath = socketPath;
    settings.lane = admin::laneOf;
    settings.answer = admin::answerRequest;
    settings.endFollowing = [] { allowEventWaits(false); };
    allowEventWaits(true);
    try {
        s_server = std::make_unique<admin::Server>(settings);
    } catch (const std::exception &error) {
        throw std::runtime_error(std::string("admin server: ") + error.what());
    }
}

void stopAdminServer()
{
    const std::lock_guard guard(s_lock);
    s_server.reset();
}

} // namespace host
