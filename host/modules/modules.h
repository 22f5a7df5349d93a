/*
 * The protocol modules of the reference host: up to six, each of which listens on address:port for every service
 * address of the protocol types that it serves.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace host {

constexpr unsigned kModuleSlots = 6;
// The library's LIF manager owns this slot and passes its events on to the module configured there.
constexpr unsigned kLifSlot = 3;

struct ModuleConfig {
    unsigned slot;
    std::string name;
    std::vector<uint32_t> protoTypes;
    uint16_t port;
};

// Reads "SLOT:NAME:TYPE[,TYPE...]:PORT". Throws std::invalid_argument that says what is wrong.
ModuleConfig parseModule(const std::string &text);

// Takes the modules; slots differ (std::invalid_argument otherwise). Before the library starts.
void configureModules(const std::vector<ModuleConfig> &modules);
// Registers a hook with the library for every module but the one of kLifSlot.
void registerModuleHooks();
// Closes every listening socket.
void closeModules();

struct ModuleFailure {
    std::string address;
    std::string reason; // for example "Address already in use"
};

// Calls of a module's hook.
struct ModuleCounts {
    uint64_t additions = 0; // accepted
    uint64_t deletions = 0; // carried out
    uint64_t retries = 0;   // additions of an address that the module had refused before
    uint64_t failures = 0;  // refused
};

struct ModuleState {
    ModuleConfig config;
    std::vector<std::string> listening;  // addresses
    std::vector<ModuleFailure> failures; // the last refusal of each address that is not listening
    ModuleCounts counts = {};
};

// By slot. From any thread; never waits for a bind.
std::vector<ModuleState> moduleStates();

} // namespace host
