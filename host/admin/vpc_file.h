/*
 * The file of the library's VPC table, which the library reads and writes without telling how that went.
 */
#pragma once

#include <string>

namespace host::admin {

// As the operator finds it, under the node's root.
std::string vpcFileName();

// The whole text. Throws CallError: 404 without a file, else 500 with the reason.
std::string readVpcFile();

// Throws CallError 500 with the reason when the file can be neither written nor made.
void checkVpcFileWritable();

} // namespace host::admin
