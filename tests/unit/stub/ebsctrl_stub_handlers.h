// The handlers of the FMM queue with the test's own vnode simulators behind them: each is recorded, between the
// notifications, as "moveout(<FSP> to <shard> of <src>-<dst>, ...)" or "movein(...)", and raises its semaphore.
#pragma once

#include "ebsctrl_stub_fixture.h"

#include <algorithm>
#include <memory>

namespace shard {

// A simulator that never raises its semaphore.
void loseMoves(bool lost);

inline const fmm_task &taskOf(const lwt_work_t *job)
{
    return *static_cast<const fmm_task *>(job->owner);
}

// What was told since start, in order.
inline Texts toldAmong(const Texts &calls)
{
    Texts told;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(told),
                 [](const std::string &call) { return call.starts_with("move") || call.starts_with("notifyCall"); });
    return told;
}

inline void setLocalLs(uint32_t lsId)
{
    fake::answerAlways("CgwGetInitLocalLsId", lsId);
}

// The nth submission from now on is refused with code 5; 0 = none is.
inline void refuseSubmission(uint64_t nth)
{
    fake::during("lwt_work_enqueue", [left = std::make_shared<uint64_t>(nth)] {
        if (*left != 0 && --*left == 0) {
            fake::answer("lwt_work_enqueue", {5});
        }
    });
}

// A started view of three LSs on a node that is none of them.
class Handlers : public View {
protected:
    void SetUp() override
    {
        View::SetUp();
        loseMoves(false);
        setLocalLs(9);
        start("1:a,2:b,3:c");
    }

    // Gives each FSP its node, on the shard of its remainder by 3 and in the bucket of its remainder by 8.
    static void serve(const std::vector<uint32_t> &fsps)
    {
        for (const uint32_t fsp : fsps) {
            FspGetShardIdByFsp(fsp);
        }
        start_ = fake::calls().size();
    }
    static Texts told()
    {
        const Texts all = fake::calls();
        return toldAmong({all.begin() + static_cast<ptrdiff_t>(start_), all.end()});
    }
    // Runs what was submitted, and tells what came of it.
    static Texts handled()
    {
        start_ = fake::calls().size();
        fake::runAllJobs();
        return told();
    }
    static const fmm_buffer &event() { return *taskOf(fake::queuedJob(0)).buffer; }

    inline static size_t start_ = 0;
};

} // namespace shard
