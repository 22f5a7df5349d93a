#include "admin/answer.h"

#include <nlohmann/json.hpp>

namespace host::admin {

Answer errorAnswer(unsigned status, const std::string &line)
{
    const nlohmann::ordered_json error = {{"error", line}};
    return {status, error.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)};
}

} // namespace host::admin
