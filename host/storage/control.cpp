#include "storage/control.h"

#include "message/storage_client.h"

#include <cstring>
#include <memory>
#include <nasctrl/host/memory.h>
#include <stdexcept>
#include <storage/records.h>

namespace host {

namespace {

constexpr std::chrono::milliseconds kPatience{500};

struct FreeBlock {
    void operator()(void *block) const { nas_mem_comm_free(block, "askStorageControl", __LINE__); }
};

} // namespace

std::string askStorageControl(uint32_t opcode, const std::string &request)
{
    svr_call_t call{};
    call.request = request.data();
    call.length = static_cast<uint32_t>(request.size());
    call.module = storage::kControlModule;
    call.type = opcode;
    void *response = nullptr;
    uint32_t length = 0;
    const int32_t result = callStorage(call, kPatience, &response, &length);
    const std::unique_ptr<void, FreeBlock> block(response);
    if (result != 0) {
        throw std::runtime_error(std::string("the storage service does not answer: ") + strerror(-result));
    }
    return {static_cast<const char *>(response), length};
}

} // namespace host
