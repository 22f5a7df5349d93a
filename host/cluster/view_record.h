/*
 * A view of the parallel clients in the library's memory.
 */
#pragma once

#include "cluster/dpc_view.h"

namespace host {

// A record of the view in the library's memory, entries included.
class ViewRecord {
public:
    // Throws std::bad_alloc.
    explicit ViewRecord(const DpcView &view);
    ~ViewRecord();
    ViewRecord(const ViewRecord &) = delete;
    ViewRecord &operator=(const ViewRecord &) = delete;

    const dpc_view &get() const { return record_; }
    // Exchanges contents with a record that is owned elsewhere.
    void swap(dpc_view &other) { std::swap(record_, other); }

private:
    dpc_view record_{};
};

} // namespace host
