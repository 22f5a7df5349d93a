/*
 * The remote clusters that the node serves. The list's lock is a spin lock that is held for a few instructions, so
 * reading it cannot wait for work.
 */
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include <array>
#include <nasctrl/cluster_list.h>
#include <nlohmann/json.hpp>

namespace host::admin {

Json getClusters(const CallInput & /*input*/)
{
    std::array<uint64_t, NAS_CLUSTER_LIST_MAX> ids{};
    uint16_t count = 0;
    nas_ctrl_get_cluster_list(ids.data(), &count);
    Json clusters = Json::array();
    for (uint16_t i = 0; i < count; i++) {
        clusters.push_back(std::to_string(ids.at(i)));
    }
    return {{"clusters", std::move(clusters)}, {"busy", Json::array()}};
}

Json postCluster(const CallInput &input)
{
    const uint64_t id = parseId(textField(parseFields(input.body, {"id"}), "id"));
    if (nas_ctrl_add_to_cluster_list(id) != 0) {
        throw CallError(kBadRequest, "id: the list is full with " + std::to_string(NAS_CLUSTER_LIST_MAX) +
                                         " clusters; nasctl cluster rm makes room");
    }
    return getClusters(input);
}

Json deleteCluster(const CallInput &input)
{
    nas_ctrl_remove_from_cluster_list(parseId(input.argument));
    return getClusters(input);
}

} // namespace host::admin
