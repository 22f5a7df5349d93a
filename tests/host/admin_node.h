/*
 * The node behind the admin door of these tests: whatever the calls read, as a test scripts it.
 */
#pragma once

#include "cluster/cm_client.h"
#include "message/message_service.h"
#include "modules/modules.h"
#include "node.h"
#include "notify/commands.h"
#include "platform/log.h"
#include "platform/memory.h"
#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <nasctrl/ip_manager.h>
#include <nasctrl/power.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct ConfigValue {
    uint32_t result = 0;
    std::string value;
};

struct Node {
    host::NodeIdentity identity{7, "/srv/n7", "1.2.3"};
    std::chrono::milliseconds uptime{1500};
    std::vector<host::StartStep> steps;
    std::vector<host::ModuleState> modules;
    host::MessageCounters counters{};
    std::vector<host::MemoryAccount> accounts;
    std::string memoryError; // what memoryAccounts throws, unless empty
    std::string storageAnswer;
    std::string storageFailure; // what askStorageControl throws, unless empty
    std::pair<uint32_t, std::string> storageAsked;
    std::vector<host::Command> commands;
    std::function<host::CommandAnswer(const std::optional<std::string> &)> run;
    uint32_t threshold = 6;
    std::array<uint32_t, host::kLogClasses> classes = {6, 4, 4, 3};
    uint32_t power = NAS_POWER_OFF;
    int32_t powerResult = 0;
    std::vector<uint64_t> clusters;
    std::map<std::string, ConfigValue> config; // by getter; others fail with 1
    std::deque<NasIpListNode> addresses;
    host::CmStatus cm;
    std::shared_ptr<const host::DpcView> view; // null = none was read yet
};

extern Node g_node;

void resetNode();
// To the library's list.
void addAddress(const std::string &text, uint32_t protoType, uint32_t status);
