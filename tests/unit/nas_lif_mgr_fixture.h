// What the tests of the LIF port table share beyond the model: a fresh table for each, and what was logged.
#pragma once

#include "nas_lif_mgr_model.h"

#include <cstring>
#include <fake_host.h>
#include <gmock/gmock.h>
#include <memory>
#include <nasctrl/host/memory.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/lif_port.h>
#include <string>
#include <vector>

namespace lif {

inline size_t usedSlots()
{
    size_t used = 0;
    for (const uint64_t id : g_NfsLifPortInfo.slots) {
        used += id != 0 ? 1 : 0;
    }
    return used;
}

class Table : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        ASSERT_TRUE(startTable());
    }
    void TearDown() override { EXPECT_EQ(fake::locksHeld(), locksLeft_); }

    // A mark in the log, and the lines after it.
    static size_t logged() { return fake::log().size(); }
    static Texts logSince(size_t start)
    {
        const Texts lines = fake::log();
        return {lines.begin() + static_cast<ptrdiff_t>(start), lines.end()};
    }

    int locksLeft_ = 0;
};

} // namespace lif
