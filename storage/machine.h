/*
 * The interfaces and addresses that the machine itself has.
 */
#pragma once

#include "data.h"

#include <memory>
#include <vector>

namespace storage {

// One for each address of an interface, one with an empty address for an interface that has none; in the order of
// their indexes, addresses as the system lists them. IPv6 link-local addresses are left out: without their interface,
// which no answer has room for, they name nothing. Throws std::system_error.
std::vector<Interface> readMachineInterfaces();

bool matches(const Filter &filter, const Interface &interface);

/*
 * Tells that interfaces or addresses of the machine have changed.
 */
class MachineWatch {
public:
    // Throws std::system_error.
    MachineWatch();
    ~MachineWatch();
    MachineWatch(const MachineWatch &) = delete;
    MachineWatch &operator=(const MachineWatch &) = delete;

    // Becomes readable at a change.
    int socket() const { return socket_; }
    // Takes what has been told so far; true when there was something, so that it is time to read anew.
    bool takeChanges() const;

private:
    int socket_;
};

} // namespace storage
