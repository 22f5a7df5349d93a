/*
 * The storage-side service: a Unix socket and one thread that answers on it.
 */
#pragma once

#include <memory>
#include <string>

namespace storage {

struct ServiceSettings {
    std::string socketPath; // created with mode 0600, replaced when stale; its directory must exist
    std::string dataFile;   // empty = none
};

class Service {
public:
    // Throws std::runtime_error with one clear line for a data file that is refused or a socket that cannot be had.
    explicit Service(const ServiceSettings &settings);
    // Closes every connection, answered or not, and removes the socket.
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // Takes the data file anew, as a whole or not at all; what becomes of it is logged. From any thread.
    void reload();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace storage
