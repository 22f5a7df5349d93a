/*
 * The dynamic loader's own judgement: it lays programs and libraries out and resolves their names without running them.
 */
#pragma once

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace hostcheck {

struct LoaderFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Loading {
    std::set<std::string> undefined;  // names that the library takes and nobody defines
    std::vector<std::string> missing; // libraries that cannot be found
};

// Loads host, which may be empty, and the library into it. Throws LoaderFailed with the loader's own line.
Loading tryLoading(const std::string &host, const std::string &library);

} // namespace hostcheck
