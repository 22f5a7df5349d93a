/*
 * What the library is told when the view of the clients changes.
 */
#pragma once

#include "cluster/dpc_view.h"

namespace host {

// The first view that this node sees: its clients that are faulty.
void tellFirstView(const DpcView &now);

// One change after the other, as the cluster makes them: state by state; those that left have left in good order.
void tellChange(const DpcView &was, const DpcView &now);

// After a time without contact: what failed meanwhile, what returned, and what failed and returned. Nobody knows how
// those that are gone went, so they count as lost.
void tellMissedChanges(const DpcView &was, const DpcView &now);

} // namespace host
