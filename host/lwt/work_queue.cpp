/*
 * The work queues of the contract: a queue owns worker records, some of which have a light-weight thread at any time. A
 * job is handed to a worker that is idle, to one that is started for it, or waits its turn. A worker whose job has lent
 * its place does not count among those that the queue may have at most.
 *
 * A queue's mutex guards its workers' state and its waiting jobs; it is held for a few instructions, and while a worker
 * is started, but not while a job runs. A queue is never destroyed. Callable from every thread.
 */
#include "lwt/work_queue.h"

#include "lwt/waiter.h"
#include "platform/log.h"

#include <cerrno>
#include <deque>
#include <memory>
#include <mutex>
#include <nasctrl/host/lwt.h>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

using host::LightThreads;
using host::Waiter;

// Circular, the oldest first; the jobs' own links.
class JobList {
public:
    JobList() : head_{&head_, &head_} {}
    JobList(const JobList &) = delete;
    JobList &operator=(const JobList &) = delete;
    [[nodiscard]] uint32_t size() const { return size_; }

    void add(lwt_work_t *job)
    {
        auto *last = static_cast<list_link *>(head_.prev);
        job->link = {&head_, last};
        last->next = &job->link;
        head_.prev = &job->link;
        ++size_;
    }

    // Null when there is none.
    lwt_work_t *take()
    {
        if (size_ == 0) {
            return nullptr;
        }
        auto *job = static_cast<lwt_work_t *>(head_.next); // its first member
        head_.next = job->link.next;
        static_cast<list_link *>(head_.next)->prev = &head_;
        job->link = {&job->link, &job->link};
        --size_;
        return job;
    }

private:
    list_link head_;
    uint32_t size_ = 0;
};

struct Bounds {
    uint32_t minWorkers;
    uint32_t maxWorkers;
    uint32_t waiting;
};

class WorkQueue {
public:
    WorkQueue(LightThreads &threads, const Bounds &bounds) : threads_(threads), bounds_(bounds)
    {
        for (uint32_t made = 0; made < bounds.maxWorkers; ++made) {
            addUnstarted();
        }
    }

    // The workers that there are at least. 0, or why one could not be started; those before it end.
    int32_t startWorkers()
    {
        const std::lock_guard lock(mutex_);
        while (started_ < bounds_.minWorkers) {
            Worker *worker = unstarted_.back();
            if (const int32_t result = startWorker(nullptr)) {
                close();
                return result;
            }
            addIdle(*worker); // already now, so that the first jobs need not wait for its first turn
        }
        return 0;
    }

    int32_t enqueue(lwt_work_t *job)
    {
        if (LightThreads::running() != &threads_) {
            return ESRCH;
        }
        std::unique_lock lock(mutex_);
        if (!idle_.empty()) {
            Waiter *waiter = takeIdle(job);
            lock.unlock();
            if (waiter != nullptr) {
                waiter->wake();
            }
            return 0;
        }
        if (active() < bounds_.maxWorkers) {
            const int32_t result = startWorker(job);
            if (result == 0 || started_ == 0) {
                return result;
            }
        }
        if (jobs_.size() >= bounds_.waiting) {
            return EAGAIN;
        }
        jobs_.add(job);
        return 0;
    }

    // The queue whose job the calling light-weight thread runs; null outside of jobs.
    static WorkQueue *ofCaller()
    {
        LightThreads *threads = LightThreads::current();
        const void *fiber = threads != nullptr ? threads->fiber() : nullptr;
        Worker *worker = t_workers;
        while (worker != nullptr && worker->fiber != fiber) {
            worker = worker->next;
        }
        return worker != nullptr ? worker->queue : nullptr;
    }

    // Where a worker cannot be had for a job that waits, that job waits on.
    void lendPlace()
    {
        const std::lock_guard lock(mutex_);
        ++lent_;
        if (jobs_.size() > 0 && active() < bounds_.maxWorkers) {
            startWorker(nullptr);
        }
    }

    void takePlaceBack()
    {
        const std::lock_guard lock(mutex_);
        --lent_;
    }

private:
    struct Worker {
        WorkQueue *queue = nullptr;
        lwt_work_t *job = nullptr; // handed over, not yet begun
        Waiter *waiter = nullptr;  // while it sleeps
        bool idle = false;         // among the idle ones
        void *fiber = nullptr;     // its light-weight thread's, null when that is an OS thread's only one
        Worker *next = nullptr;    // of the same OS thread
    };

    // Among the workers of the calling OS thread, which is the worker's as long as its light-weight thread lives.
    static void enterThread(Worker &worker)
    {
        worker.fiber = LightThreads::current()->fiber();
        worker.next = std::exchange(t_workers, &worker);
    }
    static void leaveThread(Worker &worker)
    {
        Worker **link = &t_workers;
        while (*link != &worker) {
            link = &(*link)->next;
        }
        *link = worker.next;
    }

    static void runWorker(void *worker)
    {
        auto *own = static_cast<Worker *>(worker);
        enterThread(*own);
        while (lwt_work_t *job = own->queue->nextJob(*own)) {
            job->func(job->owner);
        }
    }

    // Under the lock. How many workers have a thread and their place.
    uint32_t active() const { return started_ - lent_; }

    void addUnstarted()
    {
        idle_.reserve(workers_.size() + 1);
        unstarted_.reserve(workers_.size() + 1);
        workers_.emplace_back().queue = this;
        unstarted_.push_back(&workers_.back());
    }

    // Under the lock. The worker begins with job, or with one that waits.
    int32_t startWorker(lwt_work_t *job)
    {
        if (unstarted_.empty()) {
            try {
                addUnstarted();
            } catch (const std::bad_alloc &) {
                return ENOMEM;
            }
        }
        Worker *worker = unstarted_.back();
        worker->job = job;
        const int32_t result = threads_.start({runWorker, worker});
        if (result != 0) {
            worker->job = nullptr;
            return result;
        }
        unstarted_.pop_back();
        ++started_;
        return 0;
    }

    // Waits for a job; null when the worker has to end.
    lwt_work_t *nextJob(Worker &worker)
    {
        std::unique_lock lock(mutex_);
        if (worker.job != nullptr) {
            return std::exchange(worker.job, nullptr);
        }
        const bool tooMany = active() > bounds_.maxWorkers; // a place that was lent is taken back
        if (lwt_work_t *job = tooMany ? nullptr : jobs_.take()) {
            return job;
        }
        if (closed_ || started_ > bounds_.minWorkers) {
            leaveThread(worker);
            unstarted_.push_back(&worker);
            --started_;
            return nullptr;
        }
        Waiter waiter;
        worker.waiter = &waiter;
        if (!worker.idle) {
            addIdle(worker);
        }
        lock.unlock();
        waiter.wait();
        // Whoever woke this worker took it off the idle ones first, and nobody else knows it.
        worker.waiter = nullptr;
        if (worker.job == nullptr) { // the queue was closed
            leaveThread(worker);
        }
        return std::exchange(worker.job, nullptr);
    }

    // Under the lock.
    void addIdle(Worker &worker)
    {
        worker.idle = true;
        idle_.push_back(&worker);
    }

    // Under the lock. Hands job to an idle worker; what it sleeps by, null when it does not sleep yet.
    Waiter *takeIdle(lwt_work_t *job)
    {
        Worker &worker = *idle_.back();
        idle_.pop_back();
        worker.idle = false;
        worker.job = job;
        return worker.waiter;
    }

    // Under the lock, before the queue was handed out.
    void close()
    {
        closed_ = true;
        while (!idle_.empty()) {
            if (Waiter *waiter = takeIdle(nullptr)) {
                waiter->wake();
            }
        }
    }

    LightThreads &threads_;
    const Bounds bounds_;
    // The workers of the calling OS thread. Its light-weight threads never change it, and none interrupts another.
    static thread_local Worker *t_workers;

    std::mutex mutex_;
    std::deque<Worker> workers_;
    std::vector<Worker *> idle_;      // asleep, or on their way there; none while jobs wait
    std::vector<Worker *> unstarted_; // without a light-weight thread
    uint32_t started_ = 0;            // the others
    uint32_t lent_ = 0;               // of those, the ones that have lent their place
    JobList jobs_;                    // that wait
    bool closed_ = false;
};

thread_local WorkQueue::Worker *WorkQueue::t_workers = nullptr;

// Queues live as long as the process, those too whose workers could not all be started: some may still be ending.
std::vector<std::unique_ptr<WorkQueue>> &keptQueues()
{
    static auto &kept = *new std::vector<std::unique_ptr<WorkQueue>>;
    return kept;
}

std::mutex s_keptLock;

WorkQueue *makeQueue(LightThreads &threads, const Bounds &bounds)
{
    auto queue = std::make_unique<WorkQueue>(threads, bounds);
    WorkQueue *made = queue.get();
    const std::lock_guard lock(s_keptLock);
    keptQueues().push_back(std::move(queue));
    return made;
}

// 0 and the queue, or why it cannot be had.
int32_t createQueue(const Bounds &bounds, WorkQueue **created)
{
    LightThreads *threads = LightThreads::running();
    if (threads == nullptr) {
        return ESRCH;
    }
    if (bounds.maxWorkers == 0 || bounds.minWorkers > bounds.maxWorkers) {
        return EINVAL;
    }
    try {
        *created = makeQueue(*threads, bounds);
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
    return (*created)->startWorkers();
}

} // namespace

host::LentPlace::LentPlace() : queue_(WorkQueue::ofCaller())
{
    if (queue_ != nullptr) {
        static_cast<WorkQueue *>(queue_)->lendPlace();
    }
}

host::LentPlace::~LentPlace()
{
    if (queue_ != nullptr) {
        static_cast<WorkQueue *>(queue_)->takePlaceBack();
    }
}

void *lwt_workqueue_create(const char *name, uint32_t a, uint32_t b, uint32_t c)
{
    const char *shown = name != nullptr ? name : "(null)";
    WorkQueue *queue = nullptr;
    const int32_t result = createQueue({a, b, c}, &queue);
    if (result != 0) {
        HOST_LOG(NASCTRL_LOG_ERROR, "light-weight threads: work queue %s (%u to %u workers, %u waiting): error %d",
                 shown, a, b, c, result);
        return nullptr;
    }
    HOST_LOG(NASCTRL_LOG_INFO, "light-weight threads: work queue %s with %u to %u workers, %u jobs may wait", shown, a,
             b, c);
    return queue;
}

int32_t lwt_work_enqueue(void *queue, lwt_work_t *item)
{
    if (queue == nullptr || item == nullptr || item->func == nullptr || item->link.next != &item->link) {
        return EINVAL;
    }
    return static_cast<WorkQueue *>(queue)->enqueue(item);
}
