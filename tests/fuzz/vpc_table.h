/*
 * What holds of the VPC table whatever it was given, for the targets that fill it.
 */
#pragma once

#include "input.h"

#include <nasctrl/vpc.h>
#include <string>
#include <vector>

namespace fuzz {

// The used records as "ID;ADDRESS/LENGTH". Used slots lie in front, and every text is within its field.
inline std::vector<std::string> usedRecords()
{
    std::vector<std::string> records;
    size_t slot = 0;
    for (const vpc_record &record : g_vpc) {
        const std::string ip(record.ip, strnlen(record.ip, sizeof record.ip));
        require(record.in_use <= 1 && record.spare == '\0' && strnlen(record.id, sizeof record.id) < sizeof record.id);
        if (record.in_use == 1) {
            require(slot == records.size() && !ip.empty());
            records.push_back(record.id + (";" + ip) + "/" + std::to_string(record.mask));
        }
        ++slot;
    }
    return records;
}

} // namespace fuzz
