#include "storage/embedded.h"

#include "platform/log.h"

#include <memory>
#include <stdexcept>
#include <storage/service.h>

namespace host {

namespace {

std::unique_ptr<storage::Service> s_service;

} // namespace

void startEmbeddedStorage(const std::string &socketPath, const std::string &dataFile)
{
    try {
        s_service = std::make_unique<storage::Service>(storage::ServiceSettings{socketPath, dataFile});
    } catch (const std::exception &error) {
        throw std::runtime_error(std::string("storage service: ") + error.what());
    }
}

void stopEmbeddedStorage()
{
    s_service.reset();
}

void reloadEmbeddedStorage()
{
    if (s_service) {
        s_service->reload();
    } else {
        HOST_LOG(NASCTRL_LOG_PROGRESS, "storage: the service is another process, its data is read anew there");
    }
}

} // namespace host
