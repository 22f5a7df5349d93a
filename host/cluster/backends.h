/*
 * The back ends of the cluster store, for openStore.
 */
#pragma once

#include "cluster/store.h"

namespace host {

// Throws std::runtime_error with one clear line.
std::unique_ptr<Store> openSqliteStore(const StoreSettings &settings);
std::unique_ptr<Store> openEtcdStore(const StoreSettings &settings);

// Tells a watch that changes before the revision may be missing.
inline StoreEvent lostBefore(uint64_t revision)
{
    StoreEvent event{StoreEvent::Kind::lost, {}};
    event.item.revision = revision;
    return event;
}

} // namespace host
