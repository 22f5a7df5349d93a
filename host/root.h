/*
 * Running the library, whose file paths are fixed, against the files of another directory.
 */
#pragma once

#include <string>

namespace host {

// Puts root/opt in the place of /opt for this process alone. Call before any other thread exists. Throws
// std::runtime_error with one clear line that says how to go on.
void enterRoot(const std::string &root);

} // namespace host
