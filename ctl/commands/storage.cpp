/*
 * nasctl storage: the storage-side service behind the node, and the faults it is told to have.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <algorithm>
#include <common/suggest.h>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

constexpr const char *kPath = "/v1/storage/faults";

struct FaultRow {
    const char *name;
    const char *value; // what it is called; null when the fault takes none
    uint64_t least;
    uint64_t most;
};

constexpr FaultRow kFaults[] = {
    {"none", nullptr, 0, 0},        {"slow", "MS", 0, 3600000}, {"timeout", nullptr, 0, 0},
    {"short", "BYTES", 0, 1048576}, {"fail", "CODE", 1, 4095},
};

static std::string faultText(const json &question)
{
    const json &value = question.at("value");
    return question.at("fault").get<std::string>() + (value.is_null() ? "" : " " + value.dump());
}

static std::string storageTables(const json &answer, bool colour)
{
    Table head({{""}, {""}});
    const std::string data = answer.at("data").get<std::string>();
    const std::string error = answer.at("error").get<std::string>();
    head.add({{"pid"}, shown(answer.at("pid"))});
    head.add({{"data"}, {data.empty() ? "none" : data}});
    head.add({{"reload"}, error.empty() ? Cell{"no error"} : Cell{error, Tone::bad}});
    Table table({{"TYPE", Align::right}, {"QUESTION"}, {"REQUESTS", Align::right}, {"FAULT"}});
    for (const json &question : answer.at("questions")) {
        const std::string fault = faultText(question);
        table.add({shown(question.at("type")),
                   shown(question.at("name")),
                   shown(question.at("requests")),
                   {fault, fault == "none" ? Tone::plain : Tone::bad}});
    }
    return head.render(colour) + "\n" + table.render(colour);
}

int showStorage(const Session &session)
{
    present(session, AdminClient(session).get(kPath), storageTables);
    return kDone;
}

static const FaultRow *findFault(const std::string &word)
{
    const auto *row = std::ranges::find_if(kFaults, [&](const FaultRow &each) { return word == each.name; });
    return row == std::end(kFaults) ? nullptr : row;
}

static const FaultRow &faultOf(const std::string &word)
{
    const FaultRow *row = findFault(word);
    if (row == nullptr) {
        Words names;
        for (const FaultRow &each : kFaults) {
            names.emplace_back(each.name);
        }
        const std::string meant = common::suggestion(word, names);
        throw UsageFailure(nameable(word) + ": no such fault" +
                           (meant.empty() ? "; there are none, slow, timeout, short, fail" : meant));
    }
    return *row;
}

// The type in the first word, if it is one: a number, or all.
static json takeType(Words &words)
{
    const std::string first = words.front();
    const bool number = !first.empty() && first.find_first_not_of("0123456789") == std::string::npos;
    if (!number && first != "all") {
        return "all";
    }
    words.erase(words.begin());
    return number ? json(parseNumber("TYPE", first, 1, UINT32_MAX)) : json("all");
}

int setStorageFault(const Session &session, const Words &typed)
{
    Words words = typed;
    json request = {{"type", takeType(words)}};
    if (words.empty()) {
        throw UsageFailure("which fault? there are none, slow MS, timeout, short BYTES, fail CODE");
    }
    const FaultRow &row = faultOf(words[0]);
    request["fault"] = row.name;
    if (words.size() != (row.value != nullptr ? 2U : 1U)) {
        throw UsageFailure(std::string(row.name) +
                           (row.value != nullptr ? std::string(" takes one number, ") + row.value : " takes nothing"));
    }
    if (row.value != nullptr) {
        // Codes are negative where they are reported and may be copied from there.
        const bool negated = std::string_view(row.name) == "fail" && words[1].starts_with('-');
        request["value"] = parseNumber(row.value, words[1].substr(negated ? 1 : 0), row.least, row.most);
    }
    present(session, AdminClient(session).post(kPath, request), storageTables);
    return kDone;
}

} // namespace ctl
