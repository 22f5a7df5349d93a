/*
 * The library's VPC table has no lock, so the calls of the admin door that touch it take turns by one of their own.
 */
#pragma once

#include "platform/timed_hold.h"
#include <string_view>

namespace host::admin {

// The module whose commands work on the table.
constexpr std::string_view kVpcModule = "cloud_adapt";

// The table for as long as the object lives. Throws CallError 503 when another call keeps it.
class VpcHold {
public:
    VpcHold();

private:
    TimedHold hold_;
};

} // namespace host::admin
