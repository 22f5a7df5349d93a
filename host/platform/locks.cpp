/*
 * The spin lock and the reader-writer lock over the contract's words. Callable from every thread.
 *
 * The reader-writer lock's word, changed as a whole by compare-and-swap:
 *
 *     bits  0 - 27   readers inside
 *     bit  28        a writer is inside
 *     bit  29        a writer waits: new readers stay out, so that writers are not starved
 *     bit  30        readers' turn: new readers may pass a waiting writer; set when a writer leaves, cleared when a
 *                    reader leaves or a writer enters, so that a stream of writers does not starve readers either
 *     bit  31        somebody sleeps, or is about to
 *     bits 32 - 63   epoch, the word that sleepers wait on; advances at each release that wakes them
 *
 * Whoever cannot enter sets bit 31 in the word that it judged by and sleeps only while the epoch is still the one in
 * that word. The release that lets somebody in sees bit 31 and advances the epoch, so no wake-up is lost. It wakes
 * all, who then try again.
 */
#include "platform/locks.h"

#include "platform/thread_id.h"

#include <atomic>
#include <bit>
#include <linux/futex.h>
#include <nasctrl/host/platform.h>
#include <optional>
#include <sched.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr uint64_t kUnlocked = 0;
constexpr uint64_t kLocked = 1;
constexpr uint32_t kNoCpu = 0xFFFFFFFF;
constexpr uint64_t kNoOwner = ~uint64_t{0};
// Beyond this the holder has most likely lost its processor, and waiting for it takes a turn of the scheduler.
constexpr int kSpins = 200;

static_assert(sizeof(kvos_spinlock_t) == 24);
static_assert(sizeof(kvos_rwlock_t) == 8);

void pause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// Waits for the lock to look free, with plain loads that leave its cache line shared.
void awaitUnlocked(const std::atomic_ref<uint64_t> &word)
{
    for (int spin = 0; word.load(std::memory_order_relaxed) != kUnlocked; spin++) {
        if (spin < kSpins) {
            pause();
        } else {
            sched_yield();
        }
    }
}

// For whoever looks at a lock in a debugger or a core file.
void setOwner(kvos_spinlock_t &lock, uint64_t owner, uint32_t cpu)
{
    std::atomic_ref(lock.owner).store(owner, std::memory_order_relaxed);
    std::atomic_ref(lock.owner_cpu).store(cpu, std::memory_order_relaxed);
}

constexpr uint64_t kOneReader = 1;
constexpr uint64_t kReaders = (uint64_t{1} << 28) - 1;
constexpr uint64_t kWriter = uint64_t{1} << 28;
constexpr uint64_t kWriterWaits = uint64_t{1} << 29;
constexpr uint64_t kReadersTurn = uint64_t{1} << 30;
constexpr uint64_t kSleepers = uint64_t{1} << 31;
constexpr uint64_t kOneEpoch = uint64_t{1} << 32;

static_assert(std::endian::native == std::endian::little, "the epoch is the word's second half in memory");

uint32_t *epochOf(kvos_rwlock_t &lock)
{
    return reinterpret_cast<uint32_t *>(&lock.word) + 1;
}

void sleepInEpoch(kvos_rwlock_t &lock, uint64_t word)
{
    syscall(SYS_futex, epochOf(lock), FUTEX_WAIT_PRIVATE, static_cast<uint32_t>(word >> 32), nullptr, nullptr, 0);
}

void wakeAll(kvos_rwlock_t &lock)
{
    syscall(SYS_futex, epochOf(lock), FUTEX_WAKE_PRIVATE, INT32_MAX, nullptr, nullptr, 0);
}

// The word with one more reader inside, or nothing when readers have to wait.
std::optional<uint64_t> withReader(uint64_t word)
{
    const bool writersFirst = (word & kWriterWaits) != 0 && (word & kReadersTurn) == 0;
    if ((word & kWriter) != 0 || writersFirst) {
        return std::nullopt;
    }
    return word + kOneReader;
}

// The word with a writer inside. Other writers that wait set their bit again when they are woken and find this one.
std::optional<uint64_t> withWriter(uint64_t word)
{
    if ((word & (kWriter | kReaders)) != 0) {
        return std::nullopt;
    }
    return (word & ~(kWriterWaits | kReadersTurn)) | kWriter;
}

void enter(kvos_rwlock_t &lock, std::optional<uint64_t> (*entered)(uint64_t), uint64_t waitingBits)
{
    const std::atomic_ref word(lock.word);
    uint64_t seen = word.load(std::memory_order_relaxed);
    for (;;) {
        if (const std::optional<uint64_t> next = entered(seen)) {
            if (word.compare_exchange_weak(seen, *next, std::memory_order_acquire, std::memory_order_relaxed)) {
                return;
            }
            continue;
        }
        const uint64_t waiting = seen | waitingBits;
        if (waiting == seen || word.compare_exchange_weak(seen, waiting, std::memory_order_relaxed)) {
            sleepInEpoch(lock, waiting);
            seen = word.load(std::memory_order_relaxed);
        }
    }
}

constexpr std::chrono::milliseconds kBetweenTries{1};

bool enterInTime(kvos_rwlock_t &lock, std::optional<uint64_t> (*entered)(uint64_t), std::chrono::nanoseconds limit)
{
    const auto until = std::chrono::steady_clock::now() + limit;
    const std::atomic_ref word(lock.word);
    uint64_t seen = word.load(std::memory_order_relaxed);
    for (;;) {
        while (const std::optional<uint64_t> next = entered(seen)) {
            if (word.compare_exchange_weak(seen, *next, std::memory_order_acquire, std::memory_order_relaxed)) {
                return true;
            }
        }
        if (std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(kBetweenTries);
        seen = word.load(std::memory_order_relaxed);
    }
}

uint64_t withoutReader(uint64_t word)
{
    return (word - kOneReader) & ~kReadersTurn;
}

uint64_t withoutWriter(uint64_t word)
{
    return (word & ~kWriter) | kReadersTurn;
}

void leave(kvos_rwlock_t &lock, uint64_t (*left)(uint64_t))
{
    const std::atomic_ref word(lock.word);
    uint64_t seen = word.load(std::memory_order_relaxed);
    uint64_t next;
    bool wakes;
    do {
        next = left(seen);
        wakes = (next & kSleepers) != 0 && (next & (kReaders | kWriter)) == 0;
        if (wakes) {
            next = (next & ~kSleepers) + kOneEpoch;
        }
    } while (!word.compare_exchange_weak(seen, next, std::memory_order_release, std::memory_order_relaxed));
    if (wakes) {
        wakeAll(lock);
    }
}

} // namespace

void do_kvos_spinlock_lock(kvos_spinlock_t *lock)
{
    const std::atomic_ref word(lock->lock);
    while (word.exchange(kLocked, std::memory_order_acquire) != kUnlocked) {
        awaitUnlocked(word);
    }
    setOwner(*lock, host::osThreadId(), static_cast<uint32_t>(sched_getcpu()));
}

void do_kvos_spinlock_unlock(kvos_spinlock_t *lock)
{
    setOwner(*lock, kNoOwner, kNoCpu);
    std::atomic_ref(lock->lock).store(kUnlocked, std::memory_order_release);
}

void kvos_rwlock_read_lock(kvos_rwlock_t *lock)
{
    enter(*lock, withReader, kSleepers);
}

void kvos_rwlock_read_unlock(kvos_rwlock_t *lock)
{
    leave(*lock, withoutReader);
}

bool host::readLockInTime(kvos_rwlock_t *lock, std::chrono::nanoseconds limit)
{
    return enterInTime(*lock, withReader, limit);
}

bool host::writeLockInTime(kvos_rwlock_t *lock, std::chrono::nanoseconds limit)
{
    return enterInTime(*lock, withWriter, limit);
}

void kvos_rwlock_write_lock(kvos_rwlock_t *lock)
{
    enter(*lock, withWriter, kSleepers | kWriterWaits);
}

void kvos_rwlock_write_unlock(kvos_rwlock_t *lock)
{
    leave(*lock, withoutWriter);
}
