/*
 * The storage-side service inside this process. Main thread only.
 */
#pragma once

#include <string>

namespace host {

// Throws std::runtime_error with one clear line. dataFile may be empty.
void startEmbeddedStorage(const std::string &socketPath, const std::string &dataFile);
void stopEmbeddedStorage();
// Takes the data file anew. Without an embedded service there is nothing to do here, which is logged.
void reloadEmbeddedStorage();

} // namespace host
