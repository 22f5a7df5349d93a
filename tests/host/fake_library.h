/*
 * A scripted libnasctrl, with as much of the platform under it as the host's adapters and commands touch: answers are
 * set by a test, calls are recorded in order.
 */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake {

struct Sent {
    std::vector<uint8_t> bytes;
    uint32_t sequence;
};

struct Library {
    std::vector<std::string> calls;                   // "NAME(ARGUMENTS)", in order
    std::vector<std::string> lines;                   // of the log
    std::vector<Sent> sent;                           // by SvrSendResponse
    std::map<std::string, std::string> configuration; // value by key; a missing one is a failed read
    std::string nodeList;                             // the answer to GetCurNodeIpList; empty = it fails with -110
    std::string ipText;                               // what the address list prints
    bool failAllocation = false;
    uint32_t result = 0; // of the calls that change something
    uint32_t logThreshold = 6;
};

// The one instance; reset empties it, the library's exported tables included.
Library &library();
void reset();

// Puts an address into the library's list, or a LIF port into its table.
void listAddress(const std::string &address, uint32_t protoType, uint32_t status);
void addPort(uint64_t id, uint32_t index, uint64_t time, const std::string &name, const std::string &ip);

} // namespace fake
