/*
 * The log's threshold and class levels.
 */
#include "platform/log.h"

#include "admin/calls.h"
#include "admin/fields.h"
#include <nlohmann/json.hpp>

namespace host::admin {

Json getLog(const CallInput & /*input*/)
{
    Json classes = Json::array();
    for (uint32_t logClass = 0; logClass < kLogClasses; logClass++) {
        classes.push_back(logClassLevel(logClass));
    }
    return {{"threshold", logThreshold()}, {"classes", std::move(classes)}};
}

Json putLog(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"threshold", "class", "level"});
    if (fields.contains("threshold")) {
        const Json alone = parseFields(input.body, {"threshold"});
        setLogThreshold(numberField(alone, "threshold", kMaxLogLevel));
    } else {
        const uint32_t logClass = numberField(fields, "class", kLogClasses - 1);
        setLogClassLevel(logClass, numberField(fields, "level", kMaxLogLevel));
    }
    return getLog(input);
}

} // namespace host::admin
