#include "cluster/dpc_view.h"

#include "platform/copy_text.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

namespace host {
namespace {

using Json = nlohmann::ordered_json;

template <typename Clients>
auto place(Clients &clients, uint32_t lsId)
{
    return std::ranges::lower_bound(clients, lsId, {}, &DpcClient::lsId);
}

Json jsonOf(const DpcClient &client)
{
    Json attributes = Json::object();
    for (const auto &[name, value] : client.attributes) {
        attributes[name] = value;
    }
    return {{"ls", client.lsId},
            {"session", client.session},
            {"run_state", client.runState},
            {"reason", client.faultReason},
            {"faults", client.faults},
            {"node", client.node},
            {"attributes", std::move(attributes)}};
}

void checkAttribute(const std::string &name, const std::string &value)
{
    if (name.empty() || name.size() > kMaxDpcAttributeName || value.size() > kMaxDpcAttributeValue) {
        throw std::runtime_error("attribute " + name + " is too long or has no name");
    }
}

template <typename Number>
Number number(const Json &row, const char *name)
{
    const Json &field = row.at(name);
    if (!field.is_number_unsigned() || !std::in_range<Number>(field.get<uint64_t>())) {
        throw std::runtime_error(std::string(name) + " is no number of its kind");
    }
    return field.get<Number>();
}

DpcClient clientOf(const Json &row)
{
    DpcClient client;
    client.lsId = number<uint32_t>(row, "ls");
    client.session = number<uint64_t>(row, "session");
    client.runState = number<int32_t>(row, "run_state");
    client.faultReason = number<int32_t>(row, "reason");
    client.faults = number<uint64_t>(row, "faults");
    client.node = number<uint32_t>(row, "node");
    for (const auto &[name, value] : row.at("attributes").items()) {
        checkAttribute(name, value.get<std::string>());
        client.attributes.emplace_back(name, value.get<std::string>());
    }
    if (client.attributes.size() > kMaxDpcAttributes) {
        throw std::runtime_error("LS " + std::to_string(client.lsId) + " has more than 8 attributes");
    }
    return client;
}

// The clients as they must be: in ascending order, each id once.
void checkOrder(const std::vector<DpcClient> &clients)
{
    const auto wrong = std::ranges::adjacent_find(
        clients, [](const DpcClient &left, const DpcClient &right) { return left.lsId >= right.lsId; });
    if (wrong != clients.end()) {
        throw std::runtime_error("LS " + std::to_string(std::next(wrong)->lsId) + " is out of order or there twice");
    }
}

} // namespace

const DpcClient *DpcView::find(uint32_t lsId) const
{
    const auto found = place(clients, lsId);
    return found != clients.end() && found->lsId == lsId ? &*found : nullptr;
}

DpcClient *DpcView::find(uint32_t lsId)
{
    return const_cast<DpcClient *>(std::as_const(*this).find(lsId));
}

void DpcView::put(DpcClient client)
{
    if (DpcClient *known = find(client.lsId)) {
        *known = std::move(client);
        return;
    }
    clients.insert(place(clients, client.lsId), std::move(client));
}

void DpcView::erase(uint32_t lsId)
{
    std::erase_if(clients, [lsId](const DpcClient &client) { return client.lsId == lsId; });
}

std::string toText(const DpcView &view)
{
    Json clients = Json::array();
    for (const DpcClient &client : view.clients) {
        clients.push_back(jsonOf(client));
    }
    const Json text{{"version", view.version}, {"writer", view.writer}, {"clients", std::move(clients)}};
    return text.dump(-1, ' ', false, Json::error_handler_t::replace);
}

DpcView parseDpcView(const std::string &text)
{
    try {
        const Json json = Json::parse(text);
        DpcView view;
        view.version = number<uint64_t>(json, "version");
        view.writer = json.at("writer").get<std::string>();
        for (const Json &row : json.at("clients")) {
            view.clients.push_back(clientOf(row));
        }
        checkOrder(view.clients);
        return view;
    } catch (const std::exception &error) {
        throw std::runtime_error(std::string("the stored view of the clients is not one: ") + error.what());
    }
}

cm_ls_entry entryOf(const DpcClient &client)
{
    cm_ls_entry entry{};
    entry.lsId = client.lsId;
    entry.sessionId = client.session;
    entry.rs = client.runState;
    std::memcpy(entry.rest, &client.faultReason, sizeof client.faultReason);
    for (size_t i = 0; i < std::min(client.attributes.size(), kMaxDpcAttributes); ++i) {
        const auto &[name, value] = client.attributes[i];
        copyText(entry.attrs[i].name, name);
        copyText(entry.attrs[i].value, value);
        entry.attrs[i].valueLen = static_cast<uint32_t>(std::strlen(entry.attrs[i].value) + 1);
    }
    return entry;
}

int32_t faultReasonOf(const cm_ls_entry &entry)
{
    int32_t reason = kNoFault;
    std::memcpy(&reason, entry.rest, sizeof reason);
    return reason;
}

} // namespace host
