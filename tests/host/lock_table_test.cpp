#include "failing_new.h"
#include "nlm/lock_table.h"

#include <gmock/gmock.h>
#include <random>

namespace {

using host::byteRange;
using host::ByteRange;
using host::FileLock;
using host::LockTable;
using testing::ElementsAre;
using testing::IsEmpty;
using Result = host::LockTable::Result;

constexpr uint64_t kEnd = UINT64_MAX;

// On the file "f".
FileLock exclusive(uint32_t lsId, uint64_t first, uint64_t last)
{
    return {"f", lsId, {first, last}, false};
}

FileLock shared(uint32_t lsId, uint64_t first, uint64_t last)
{
    return {"f", lsId, {first, last}, true};
}

class Locks : public testing::Test {
protected:
    Result take(const FileLock &lock) { return table_.take(lock, nullptr); }
    Result release(uint32_t lsId, uint64_t first, uint64_t last) { return table_.release("f", lsId, {first, last}); }

    LockTable table_;
};

TEST(Range, IsFromAStartAndALength)
{
    EXPECT_EQ(byteRange(5, 3), (ByteRange{5, 7}));
    EXPECT_EQ(byteRange(5, 0), (ByteRange{5, kEnd}));
    EXPECT_EQ(byteRange(kEnd, 0), (ByteRange{kEnd, kEnd}));
    EXPECT_EQ(byteRange(kEnd, 1), (ByteRange{kEnd, kEnd}));
    EXPECT_EQ(byteRange(1, kEnd), (ByteRange{1, kEnd}));
}

TEST(Range, DoesNotPassTheLastByteThereCanBe)
{
    EXPECT_EQ(byteRange(2, kEnd), std::nullopt);
    EXPECT_EQ(byteRange(kEnd, 2), std::nullopt);
}

TEST_F(Locks, OfOneOwnerThatTouchBecomeOne)
{
    take(exclusive(1, 0, 9));
    take(exclusive(1, 20, 29));
    EXPECT_EQ(take(exclusive(1, 10, 19)), Result::done);
    EXPECT_THAT(table_.list(), ElementsAre(exclusive(1, 0, 29)));
    EXPECT_EQ(table_.size(), 1U);
}

TEST_F(Locks, OfOneOwnerThatDoNotTouchStayTwo)
{
    take(exclusive(1, 11, 12));
    EXPECT_EQ(take(exclusive(1, 0, 9)), Result::done);
    EXPECT_THAT(table_.list(), ElementsAre(exclusive(1, 0, 9), exclusive(1, 11, 12)));
}

TEST_F(Locks, OfAnotherKindReplaceWhatTheyCover)
{
    take(exclusive(1, 0, 29));
    EXPECT_EQ(take(shared(1, 10, 19)), Result::done);
    EXPECT_THAT(table_.list(), ElementsAre(exclusive(1, 0, 9), shared(1, 10, 19), exclusive(1, 20, 29)));
    EXPECT_EQ(take(exclusive(1, 5, 24)), Result::done);
    EXPECT_THAT(table_.list(), ElementsAre(exclusive(1, 0, 29)));
}

TEST_F(Locks, ThatAreSharedOverlapThoseOfOthers)
{
    take(shared(1, 0, 9));
    EXPECT_EQ(take(shared(2, 5, 14)), Result::done);
    EXPECT_THAT(table_.list(), ElementsAre(shared(1, 0, 9), shared(2, 5, 14)));
}

TEST_F(Locks, InTheWayAreNamedAndNothingIsTaken)
{
    take(shared(1, 0, 9));
    take(exclusive(2, 20, 29));
    FileLock holder;
    EXPECT_EQ(table_.take(exclusive(3, 9, 20), &holder), Result::conflict);
    EXPECT_EQ(holder, shared(1, 0, 9));
    EXPECT_EQ(table_.take(shared(3, 9, 20), &holder), Result::conflict);
    EXPECT_EQ(holder, exclusive(2, 20, 29));
    EXPECT_THAT(table_.list(), ElementsAre(shared(1, 0, 9), exclusive(2, 20, 29)));
}

TEST_F(Locks, ThatOneWantsToMakeExclusiveMustNotBeShared)
{
    take(shared(1, 0, 9));
    take(shared(2, 9, 9));
    EXPECT_EQ(take(exclusive(1, 0, 9)), Result::conflict);
    EXPECT_EQ(take(exclusive(1, 0, 8)), Result::done);
}

TEST_F(Locks, OfDifferentFilesHaveNothingToDoWithEachOther)
{
    take(exclusive(1, 0, kEnd));
    EXPECT_EQ(take({"g", 2, {0, kEnd}, false}), Result::done);
}

TEST_F(Locks, ToTheEndReachAsFarAsAFileCanGrow)
{
    take(exclusive(1, 5, kEnd));
    EXPECT_EQ(take(exclusive(2, kEnd, kEnd)), Result::conflict);
    EXPECT_EQ(take(exclusive(2, 0, 4)), Result::done);
    EXPECT_EQ(take(exclusive(1, kEnd, kEnd)), Result::done);
    EXPECT_THAT(table_.list(), ElementsAre(exclusive(2, 0, 4), exclusive(1, 5, kEnd)));
}

TEST_F(Locks, AreCutByARelease)
{
    take(shared(1, 0, kEnd));
    EXPECT_EQ(release(1, 10, 19), Result::done);
    EXPECT_THAT(table_.list(), ElementsAre(shared(1, 0, 9), shared(1, 20, kEnd)));
    EXPECT_EQ(release(1, 0, kEnd), Result::done);
    EXPECT_THAT(table_.list(), IsEmpty());
    EXPECT_EQ(table_.size(), 0U);
}

TEST_F(Locks, ThatNobodyHoldsAreReleasedWithoutError)
{
    take(exclusive(1, 0, 9));
    EXPECT_EQ(release(2, 0, 9), Result::done);
    EXPECT_EQ(table_.release("g", 1, {0, 9}), Result::done);
    EXPECT_THAT(table_.list(), ElementsAre(exclusive(1, 0, 9)));
}

TEST_F(Locks, OfAnOwnerAreReleasedInAllFiles)
{
    take(shared(1, 0, 9));
    take(shared(2, 0, 9));
    take(exclusive(1, 20, 29));
    take({"g", 1, {0, 0}, false});
    EXPECT_EQ(table_.releaseAll(1), 3U);
    EXPECT_THAT(table_.list(), ElementsAre(shared(2, 0, 9)));
    EXPECT_EQ(table_.size(), 1U);
    EXPECT_EQ(table_.releaseAll(1), 0U);
}

TEST(FullTable, RefusesWhatNeedsRoomAndTakesWhatDoesNot)
{
    LockTable table(2);
    table.take(exclusive(1, 0, 9), nullptr);
    table.take({"g", 1, {0, 9}, false}, nullptr);
    EXPECT_EQ(table.take(exclusive(1, 20, 29), nullptr), Result::full);
    EXPECT_EQ(table.release("f", 1, {4, 5}), Result::full) << "two halves need the room of two";
    EXPECT_EQ(table.take(exclusive(1, 10, 19), nullptr), Result::done) << "it grows a lock that is there";
    EXPECT_EQ(table.release("f", 1, {0, 4}), Result::done);
    EXPECT_THAT(table.list(), ElementsAre(exclusive(1, 5, 19), (FileLock{"g", 1, {0, 9}, false})));
}

TEST(ShortMemory, LeavesTheTableAsItWas)
{
    LockTable table;
    table.take(exclusive(1, 0, 9), nullptr);
    const std::vector<FileLock> before = table.list();
    const auto unchanged = [&] {
        EXPECT_EQ(table.list(), before);
        EXPECT_EQ(table.size(), 1U);
    };
    const auto attempt = [](auto &&change) {
        try {
            change();
        } catch (const std::bad_alloc &) {
        }
    };
    failing::sweep([&] { attempt([&] { table.take(exclusive(1, 20, 29), nullptr); }); }, unchanged);
    table.release("f", 1, {20, 29});
    failing::sweep([&] { attempt([&] { table.take({std::string(100, 'g'), 1, {0, 9}, true}, nullptr); }); }, unchanged);
    table.release(std::string(100, 'g'), 1, {0, 9});
    failing::sweep([&] { attempt([&] { table.release("f", 1, {3, 4}); }); }, unchanged);
    EXPECT_THAT(table.list(), ElementsAre(exclusive(1, 0, 2), exclusive(1, 5, 9)));
}

// ---- against a map of bytes

constexpr uint64_t kBytes = 24;
constexpr uint32_t kOwners = 3;

enum class Byte : uint8_t { free, shared, exclusive };

// What each owner holds of each byte; the last byte stands for all to the end.
class ByteMap {
public:
    bool take(const FileLock &lock)
    {
        for (uint64_t byte = lock.range.first; byte <= last(lock.range); ++byte) {
            for (uint32_t owner = 1; owner <= kOwners; ++owner) {
                const Byte held = bytes_[owner][byte];
                if (owner != lock.lsId && held != Byte::free && !(lock.shared && held == Byte::shared)) {
                    return false;
                }
            }
        }
        set(lock.lsId, lock.range, lock.shared ? Byte::shared : Byte::exclusive);
        return true;
    }
    void set(uint32_t owner, const ByteRange &range, Byte value)
    {
        for (uint64_t byte = range.first; byte <= last(range); ++byte) {
            bytes_[owner][byte] = value;
        }
    }
    // The longest runs of a kind, in the table's order.
    std::vector<FileLock> list() const
    {
        std::vector<FileLock> locks;
        for (uint64_t first = 0; first < kBytes; ++first) {
            for (uint32_t owner = 1; owner <= kOwners; ++owner) {
                const Byte kind = bytes_[owner][first];
                if (kind == Byte::free || (first > 0 && bytes_[owner][first - 1] == kind)) {
                    continue;
                }
                uint64_t end = first;
                while (end + 1 < kBytes && bytes_[owner][end + 1] == kind) {
                    ++end;
                }
                locks.push_back({"f", owner, {first, end + 1 == kBytes ? kEnd : end}, kind == Byte::shared});
            }
        }
        return locks;
    }

private:
    static uint64_t last(const ByteRange &range) { return std::min(range.last, kBytes - 1); }

    Byte bytes_[kOwners + 1][kBytes] = {};
};

TEST(LockTableModel, AgreesWithAMapOfBytesInEachStepOfRandomWork)
{
    for (unsigned seed = 1; seed <= 20; ++seed) {
        std::mt19937 random(seed);
        const auto below = [&random](uint32_t bound) { return static_cast<uint32_t>(random() % bound); };
        LockTable table;
        ByteMap model;
        for (unsigned step = 0; step < 2000; ++step) {
            const uint32_t owner = 1 + below(kOwners);
            const uint64_t first = below(kBytes);
            const uint64_t last = first + below(kBytes / 2);
            const ByteRange range{first, last + 1 >= kBytes ? kEnd : last};
            const uint32_t action = below(100);
            if (action < 60) {
                const FileLock lock{"f", owner, range, action < 30};
                ASSERT_EQ(table.take(lock, nullptr) == Result::done, model.take(lock)) << seed << ":" << step;
            } else if (action < 98) {
                ASSERT_EQ(table.release("f", owner, range), Result::done);
                model.set(owner, range, Byte::free);
            } else {
                table.releaseAll(owner);
                model.set(owner, {0, kEnd}, Byte::free);
            }
            ASSERT_EQ(table.list(), model.list()) << seed << ":" << step;
            ASSERT_EQ(table.size(), model.list().size()) << seed << ":" << step;
        }
    }
}

} // namespace
