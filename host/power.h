/*
 * The protocol service of the reference host: the door between the node's addresses and the protocol modules.
 *
 * While the service is on, every address is announced to the modules, which listen on it. While it is off, addresses
 * are still taken and kept, no module hears of them and nothing listens.
 */
#pragma once

#include <cstdint>

namespace host {

// As it has to be before addresses flow, until the service is powered on.
void shutServiceDoor();

// Hands the two routines to the library's power state. 0, or an error code.
int32_t registerPower();

} // namespace host
