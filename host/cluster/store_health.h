/*
 * How the last call of a store went, kept so that asking for it never waits for the store.
 */
#pragma once

#include "cluster/store.h"
#include <mutex>
#include <utility>

namespace host {

class StoreHealth {
public:
    explicit StoreHealth(std::string place) { status_.place = std::move(place); }

    void answered()
    {
        const std::scoped_lock lock(mutex_);
        status_.reachable = true;
    }
    void answered(const std::string &place)
    {
        const std::scoped_lock lock(mutex_);
        status_.place = place;
        status_.reachable = true;
    }
    void failed(const std::string &error)
    {
        const std::scoped_lock lock(mutex_);
        status_.reachable = false;
        status_.error = error;
    }
    StoreStatus status() const
    {
        const std::scoped_lock lock(mutex_);
        return status_;
    }

private:
    mutable std::mutex mutex_; // held for a copy
    StoreStatus status_;
};

} // namespace host
