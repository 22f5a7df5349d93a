/*
 * The storage-side service's faults: asked of and told to the service itself, wherever it runs.
 */
#include "storage/control.h"

#include "admin/answer.h"
#include "admin/calls.h"
#include <nlohmann/json.hpp>
#include <storage/records.h>

namespace host::admin {

namespace {

Json askService(uint32_t opcode, const std::string &request)
{
    Json answer = Json::parse(askStorageControl(opcode, request), nullptr, false);
    if (!answer.is_object()) {
        throw CallError(kInternalError, "the storage service's answer is no JSON object");
    }
    if (answer.contains("error") && answer.size() == 1) {
        throw CallError(kBadRequest, answer["error"].is_string() ? answer["error"].get<std::string>() : "refused");
    }
    return answer;
}

} // namespace

Json getStorageFaults(const CallInput & /*input*/)
{
    return askService(storage::kControlStatus, "");
}

Json postStorageFault(const CallInput &input)
{
    return askService(storage::kControlFault, input.body);
}

} // namespace host::admin
