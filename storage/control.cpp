#include "control.h"

#include "answers.h"
#include "json_tree.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace storage {

namespace {

using Json = nlohmann::ordered_json;

std::string dumped(const Json &json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

[[noreturn]] void refuse(const std::string &field, const std::string &why)
{
    throw std::runtime_error(field + ": " + why);
}

const JsonNode *find(const JsonNode &object, const char *name)
{
    const auto member = std::ranges::find(object.children, name, &JsonNode::name);
    return member == object.children.end() ? nullptr : &*member;
}

void checkFields(const JsonNode &request)
{
    if (request.kind != JsonKind::object) {
        throw std::runtime_error("the request is not a JSON object");
    }
    for (const JsonNode &member : request.children) {
        if (member.name != "type" && member.name != "fault" && member.name != "value") {
            refuse("\"" + member.name + "\"", "is not a field of this request");
        }
        if (find(request, member.name.c_str()) != &member) {
            refuse(member.name, "is given twice");
        }
    }
}

std::optional<uint32_t> typeOf(const JsonNode *node)
{
    if (node != nullptr && node->kind == JsonKind::text && node->text == "all") {
        return std::nullopt;
    }
    const bool whole = node != nullptr && node->kind == JsonKind::whole && !node->negative;
    if (!whole || node->value > UINT32_MAX || findQuestion(static_cast<uint32_t>(node->value)) == nullptr) {
        std::string types;
        for (const Question &question : questions()) {
            types += std::to_string(question.type) + ", ";
        }
        refuse("type", "must be one of " + types + "or \"all\"");
    }
    return static_cast<uint32_t>(node->value);
}

const FaultRow &kindOf(const JsonNode *node)
{
    const FaultRow *row = node != nullptr && node->kind == JsonKind::text ? findFault(node->text) : nullptr;
    if (row == nullptr) {
        refuse("fault", "must be one of " + faultNames());
    }
    return *row;
}

uint32_t valueOf(const FaultRow &row, const JsonNode *node)
{
    if (!row.hasValue) {
        if (node != nullptr) {
            refuse("value", std::string("is not possible with ") + row.name);
        }
        return 0;
    }
    if (node == nullptr || node->kind != JsonKind::whole || node->negative || node->value < row.least ||
        node->value > row.most) {
        refuse("value", std::string("must be a whole number from ") + std::to_string(row.least) + " to " +
                            std::to_string(row.most) + " with " + row.name);
    }
    return static_cast<uint32_t>(node->value);
}

} // namespace

std::string statusText(const ServiceState &state)
{
    Json questionRows = Json::array();
    for (const QuestionState &question : state.questions) {
        const FaultRow &row = rowOf(question.fault.kind);
        questionRows.push_back({{"type", question.type},
                                {"name", question.name},
                                {"fault", row.name},
                                {"value", row.hasValue ? Json(question.fault.value) : Json()},
                                {"requests", question.requests}});
    }
    return dumped(
        {{"pid", getpid()}, {"data", state.dataFile}, {"error", state.error}, {"questions", std::move(questionRows)}});
}

FaultRequest parseFaultRequest(const std::string &text)
{
    const JsonNode request = parseJson(text);
    checkFields(request);
    const auto type = typeOf(find(request, "type"));
    const FaultRow &row = kindOf(find(request, "fault"));
    return {type, {row.kind, valueOf(row, find(request, "value"))}};
}

std::string errorText(const std::string &line)
{
    return dumped({{"error", line}});
}

} // namespace storage
