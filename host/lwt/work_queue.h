/*
 * What a wait within a job tells the job's work queue.
 */
#pragma once

namespace host {

// As long as it lives on a light-weight thread that runs a queue's job, the queue may run another job in its place: so
// jobs may wait for one that is queued behind them, however many they are. Without effect on every other thread.
class LentPlace {
public:
    LentPlace();
    ~LentPlace();
    LentPlace(const LentPlace &) = delete;
    LentPlace &operator=(const LentPlace &) = delete;

private:
    void *queue_;
};

} // namespace host
