// Reader-writer locks with an end to the waiting, and the size that a block of the pool was asked for with.
#include "platform/locks.h"

#include "platform/memory.h"
#include <future>
#include <gtest/gtest.h>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;

TEST(BoundedLock, IsTakenWhenItIsFree)
{
    kvos_rwlock_t lock = {};
    EXPECT_TRUE(host::writeLockInTime(&lock, milliseconds(0)));
    EXPECT_FALSE(host::readLockInTime(&lock, milliseconds(0)));
    EXPECT_FALSE(host::writeLockInTime(&lock, milliseconds(0)));
    kvos_rwlock_write_unlock(&lock);
    EXPECT_TRUE(host::readLockInTime(&lock, milliseconds(0)));
    EXPECT_TRUE(host::readLockInTime(&lock, milliseconds(0)));
    EXPECT_FALSE(host::writeLockInTime(&lock, milliseconds(0)));
    kvos_rwlock_read_unlock(&lock);
    kvos_rwlock_read_unlock(&lock);
    EXPECT_TRUE(host::writeLockInTime(&lock, milliseconds(0)));
}

TEST(BoundedLock, IsGivenUpOnlyAfterItsTime)
{
    kvos_rwlock_t lock = {};
    kvos_rwlock_write_lock(&lock);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(host::readLockInTime(&lock, milliseconds(3)));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(3));
}

TEST(BoundedLock, IsHadAsSoonAsItsHolderLeaves)
{
    kvos_rwlock_t lock = {};
    kvos_rwlock_write_lock(&lock);
    auto taken = std::async(std::launch::async, [&] { return host::readLockInTime(&lock, minutes(10)); });
    kvos_rwlock_write_unlock(&lock);
    EXPECT_TRUE(taken.get());
}

// A reader that never leaves and a writer that sleeps on it: whoever waits in the lock's order would wait for ever.
TEST(BoundedLock, IsGivenUpBehindAWriterThatWaitsForALostReader)
{
    kvos_rwlock_t lock = {};
    kvos_rwlock_read_lock(&lock);
    std::thread writer([&] {
        kvos_rwlock_write_lock(&lock);
        kvos_rwlock_write_unlock(&lock);
    });
    while (host::readLockInTime(&lock, milliseconds(0))) { // until the writer waits
        kvos_rwlock_read_unlock(&lock);
        std::this_thread::yield();
    }
    EXPECT_FALSE(host::readLockInTime(&lock, milliseconds(2)));
    kvos_rwlock_read_unlock(&lock);
    writer.join();
    EXPECT_TRUE(host::writeLockInTime(&lock, milliseconds(0)));
}

TEST(BlockSize, IsTheSizeThatWasAskedFor)
{
    for (const size_t size : {size_t{1}, size_t{258}, size_t{1} << 20}) {
        void *block = nas_mem_comm_zalloc(size, __func__, __LINE__);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(host::blockSize(block), size);
        nas_mem_comm_free(block, __func__, __LINE__);
    }
}

} // namespace
