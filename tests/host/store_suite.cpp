// What the cluster store promises, kept by every back end.
#include "store_backends.h"

#include <gmock/gmock.h>
#include <thread>

using host::StoreEvent;
using host::StoreItem;
using host::StoreResult;
using host::StoreWrite;
using store_test::Events;
using store_test::eventually;
using store_test::LossyStore;
using store_test::told;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using std::chrono::seconds;

std::vector<std::string> keysOf(const host::StoreList &list)
{
    std::vector<std::string> keys;
    for (const StoreItem &item : list.items) {
        keys.push_back(item.key);
    }
    return keys;
}

template <typename Backend>
class StoreSuite : public testing::Test {
protected:
    std::unique_ptr<host::Store> open() { return host::openStore(backend_.settings()); }

    Backend backend_;
    std::unique_ptr<host::Store> store_ = open();
};

struct BackendNames {
    template <typename Backend>
    static std::string GetName(int)
    {
        return std::is_same_v<Backend, store_test::SqliteBackend> ? "Sqlite" : "Etcd";
    }
};

using Backends = testing::Types<store_test::SqliteBackend, store_test::EtcdBackend>;
TYPED_TEST_SUITE(StoreSuite, Backends, BackendNames);

TYPED_TEST(StoreSuite, CreatesAKeyOnce)
{
    const StoreWrite first = this->store_->create("a", "one");
    const StoreWrite second = this->store_->create("a", "two");
    EXPECT_EQ(first.result, StoreResult::done);
    EXPECT_EQ(first.version, 1U);
    EXPECT_EQ(second.result, StoreResult::exists);
    const auto found = this->store_->read("a");
    EXPECT_EQ(found.result, StoreResult::done);
    EXPECT_EQ(found.item.key, "a");
    EXPECT_EQ(found.item.value, "one");
    EXPECT_EQ(found.item.version, 1U);
    EXPECT_EQ(found.item.revision, first.revision);
    EXPECT_EQ(found.item.lease, 0U);
}

TYPED_TEST(StoreSuite, ReadsAKeyThatIsNotThereAsAbsent)
{
    EXPECT_EQ(this->store_->read("a").result, StoreResult::absent);
}

TYPED_TEST(StoreSuite, WritesOnlyTheVersionThatIsExpected)
{
    const StoreWrite created = this->store_->create("a", "one");
    const StoreWrite written = this->store_->write("a", "two", 1);
    EXPECT_EQ(written.result, StoreResult::done);
    EXPECT_EQ(written.version, 2U);
    EXPECT_GT(written.revision, created.revision);
    EXPECT_EQ(this->store_->write("a", "three", 1).result, StoreResult::differs);
    EXPECT_EQ(this->store_->write("a", "three", 3).result, StoreResult::differs);
    EXPECT_EQ(this->store_->write("a", "three", 0).result, StoreResult::differs);
    EXPECT_EQ(this->store_->write("b", "three", 1).result, StoreResult::absent);
    EXPECT_EQ(this->store_->write("b", "three", 0).result, StoreResult::absent);
    EXPECT_EQ(this->store_->read("a").item.value, "two");
    EXPECT_EQ(this->store_->read("b").result, StoreResult::absent);
}

TYPED_TEST(StoreSuite, RemovesTheVersionThatIsExpectedOrAny)
{
    this->store_->create("a", "one");
    this->store_->create("b", "one");
    EXPECT_EQ(this->store_->remove("a", 2).result, StoreResult::differs);
    EXPECT_EQ(this->store_->read("a").result, StoreResult::done);
    EXPECT_EQ(this->store_->remove("a", 1).result, StoreResult::done);
    EXPECT_EQ(this->store_->remove("b", 0).result, StoreResult::done);
    EXPECT_EQ(this->store_->remove("a", 0).result, StoreResult::absent);
    EXPECT_EQ(this->store_->remove("a", 1).result, StoreResult::absent);
    EXPECT_THAT(this->store_->list("").items, IsEmpty());
}

TYPED_TEST(StoreSuite, AKeyThatIsCreatedAnewStartsItsVersionsButNotTheRevisions)
{
    this->store_->create("a", "one");
    const StoreWrite written = this->store_->write("a", "two", 1);
    const StoreWrite removed = this->store_->remove("a", 2);
    const StoreWrite created = this->store_->create("a", "three");
    EXPECT_EQ(created.version, 1U);
    EXPECT_GT(removed.revision, written.revision);
    EXPECT_GT(created.revision, removed.revision);
}

TYPED_TEST(StoreSuite, KeepsAnyBytes)
{
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes.push_back(static_cast<char>(byte));
    }
    const std::string key = "k" + bytes.substr(1);
    this->store_->create(key, bytes);
    this->store_->create("empty", "");
    const std::string large(100000, '\xFE');
    this->store_->create("large", large);
    EXPECT_EQ(this->store_->read(key).item.value, bytes);
    EXPECT_EQ(this->store_->read(key).item.key, key);
    EXPECT_EQ(this->store_->read("empty").result, StoreResult::done);
    EXPECT_EQ(this->store_->read("empty").item.value, "");
    EXPECT_EQ(this->store_->read("large").item.value, large);
}

TYPED_TEST(StoreSuite, ListsTheKeysOfAPrefixInOrder)
{
    for (const char *key : {"b", "a/2", "a/10", "a", "a0", "a/\xFF", "a/\xFF\xFF", "\xFF", "\xFF\xFF"}) {
        this->store_->create(key, key);
    }
    EXPECT_THAT(keysOf(this->store_->list("a/")), ElementsAre("a/10", "a/2", "a/\xFF", "a/\xFF\xFF"));
    EXPECT_THAT(keysOf(this->store_->list("a/\xFF")), ElementsAre("a/\xFF", "a/\xFF\xFF"));
    EXPECT_THAT(keysOf(this->store_->list("\xFF")), ElementsAre("\xFF", "\xFF\xFF"));
    EXPECT_THAT(this->store_->list("").items, SizeIs(9));
    const auto none = this->store_->list("c");
    EXPECT_EQ(none.result, StoreResult::done);
    EXPECT_THAT(none.items, IsEmpty());
    EXPECT_EQ(none.revision, this->store_->read("\xFF\xFF").item.revision);
}

TYPED_TEST(StoreSuite, ReadsBackWhatAKeyHeldAtAVersion)
{
    this->store_->create("a", "former");
    this->store_->remove("a", 0);
    this->store_->create("a", "one");
    const StoreWrite second = this->store_->write("a", "two", 1);
    this->store_->write("a", "three", 2);
    const auto found = this->store_->readBack("a", 2);
    EXPECT_EQ(found.result, StoreResult::done);
    EXPECT_EQ(found.item.value, "two");
    EXPECT_EQ(found.item.version, 2U);
    EXPECT_EQ(found.item.revision, second.revision);
    EXPECT_EQ(this->store_->readBack("a", 1).item.value, "one");
    EXPECT_EQ(this->store_->readBack("a", 3).item.value, "three");
    EXPECT_EQ(this->store_->readBack("a", 4).result, StoreResult::absent);
    EXPECT_EQ(this->store_->readBack("b", 1).result, StoreResult::absent);
    this->store_->remove("a", 0);
    EXPECT_EQ(this->store_->readBack("a", 3).result, StoreResult::absent);
}

TYPED_TEST(StoreSuite, ReadsBackNothingThatIsForgotten)
{
    this->store_->create("a", "one");
    this->store_->write("a", "two", 1);
    this->backend_.forget(*this->store_);
    EXPECT_EQ(this->store_->readBack("a", 1).result, StoreResult::absent);
    EXPECT_EQ(this->store_->readBack("a", 2).item.value, "two");
}

// ---- leases

TYPED_TEST(StoreSuite, ALeaseThatIsRevokedTakesItsKeysWithIt)
{
    const auto lease = this->store_->grant(seconds(60));
    ASSERT_EQ(lease.result, StoreResult::done);
    EXPECT_EQ(lease.ttl, seconds(60));
    this->store_->create("a", "leased", lease.lease);
    this->store_->create("b", "later leased");
    this->store_->write("b", "leased", 1, lease.lease);
    this->store_->create("c", "once leased", lease.lease);
    this->store_->write("c", "free", 1);
    this->store_->create("d", "free");
    EXPECT_EQ(this->store_->read("a").item.lease, lease.lease);
    EXPECT_EQ(this->store_->revoke(lease.lease), StoreResult::done);
    EXPECT_THAT(keysOf(this->store_->list("")), ElementsAre("c", "d"));
    EXPECT_EQ(this->store_->read("c").item.lease, 0U);
}

TYPED_TEST(StoreSuite, ALeaseThatIsNotKeptAliveEndsAndTakesItsKeysWithIt)
{
    Events events;
    const auto lease = this->store_->grant(seconds(5));
    ASSERT_EQ(lease.ttl, seconds(5));
    this->store_->create("b", "leased", lease.lease);
    this->store_->create("a", "leased", lease.lease);
    const auto watch = this->store_->watch("", this->store_->list("").revision, events.callback());
    this->backend_.passTime(seconds(5));
    const auto seen = events.wait(2);
    EXPECT_THAT(told(seen), ElementsAre("removed a", "removed b"));
    EXPECT_EQ(seen.at(0).item.revision, seen.at(1).item.revision);
    EXPECT_THAT(this->store_->list("").items, IsEmpty());
    EXPECT_EQ(this->store_->keepAlive(lease.lease).result, StoreResult::noLease);
    EXPECT_EQ(this->store_->create("a", "late", lease.lease).result, StoreResult::noLease);
}

TYPED_TEST(StoreSuite, KeepsALeaseAliveThatThereIs)
{
    const auto lease = this->store_->grant(seconds(60));
    const auto kept = this->store_->keepAlive(lease.lease);
    EXPECT_EQ(kept.result, StoreResult::done);
    EXPECT_EQ(kept.lease, lease.lease);
    EXPECT_EQ(kept.ttl, seconds(60));
    EXPECT_EQ(this->store_->keepAlive(lease.lease + 1).result, StoreResult::noLease);
}

TYPED_TEST(StoreSuite, RefusesALeaseThatThereIsNot)
{
    const auto lease = this->store_->grant(seconds(60));
    this->store_->create("a", "free");
    EXPECT_EQ(this->store_->revoke(lease.lease), StoreResult::done);
    EXPECT_EQ(this->store_->revoke(lease.lease), StoreResult::noLease);
    EXPECT_EQ(this->store_->keepAlive(lease.lease).result, StoreResult::noLease);
    EXPECT_EQ(this->store_->create("b", "leased", lease.lease).result, StoreResult::noLease);
    EXPECT_EQ(this->store_->write("a", "leased", 1, lease.lease).result, StoreResult::noLease);
    EXPECT_EQ(this->store_->read("b").result, StoreResult::absent);
    EXPECT_EQ(this->store_->read("a").item.value, "free");
}

// ---- watches

TYPED_TEST(StoreSuite, AWatchTellsOfEveryChangeOfItsPrefixInOrder)
{
    Events events;
    const auto watch = this->store_->watch("a/", this->store_->list("").revision, events.callback());
    this->store_->create("a/1", "one");
    this->store_->create("b/1", "elsewhere");
    this->store_->write("a/1", "two", 1);
    const StoreWrite removed = this->store_->remove("a/1", 2);
    const auto seen = events.wait(3);
    EXPECT_THAT(told(seen), ElementsAre("put a/1 one v1", "put a/1 two v2", "removed a/1"));
    EXPECT_EQ(seen.at(2).item.revision, removed.revision);
    EXPECT_LT(seen.at(0).item.revision, seen.at(1).item.revision);
    EXPECT_LT(seen.at(1).item.revision, seen.at(2).item.revision);
}

TYPED_TEST(StoreSuite, AWatchTellsOfThePastFromItsRevisionOn)
{
    this->store_->create("a", "one");
    const StoreWrite second = this->store_->write("a", "two", 1);
    this->store_->write("a", "three", 2);
    Events all;
    Events late;
    const auto whole = this->store_->watch("a", 0, all.callback());
    const auto after = this->store_->watch("a", second.revision, late.callback());
    EXPECT_THAT(told(all.wait(3)), ElementsAre("put a one v1", "put a two v2", "put a three v3"));
    EXPECT_THAT(told(late.wait(1)), ElementsAre("put a three v3"));
}

TYPED_TEST(StoreSuite, AWatchTellsWhatAnotherHandleChanged)
{
    Events events;
    const auto watch = this->store_->watch("", this->store_->list("").revision, events.callback());
    const auto other = this->open();
    other->create("a", "theirs");
    EXPECT_THAT(told(events.wait(1)), ElementsAre("put a theirs v1"));
}

TYPED_TEST(StoreSuite, AWatchTellsOfManyChangesAtOnce)
{
    constexpr size_t kKeys = 400;
    const auto lease = this->store_->grant(seconds(60));
    for (size_t i = 0; i < kKeys; ++i) {
        this->store_->create("k" + std::to_string(10000 + i), "", lease.lease);
    }
    Events events;
    const auto watch = this->store_->watch("", this->store_->list("").revision, events.callback());
    this->store_->revoke(lease.lease);
    const auto seen = events.wait(kKeys);
    ASSERT_THAT(seen, SizeIs(kKeys));
    for (size_t i = 0; i < kKeys; ++i) {
        EXPECT_EQ(told(seen[i]), "removed k" + std::to_string(10000 + i));
    }
}

TYPED_TEST(StoreSuite, AWatchThatIsStoppedTellsNothingMore)
{
    Events stopped;
    Events running;
    auto watch = this->store_->watch("", this->store_->list("").revision, stopped.callback());
    const auto other = this->store_->watch("", this->store_->list("").revision, running.callback());
    this->store_->create("a", "one");
    stopped.wait(1);
    watch.reset();
    this->store_->create("b", "two");
    running.wait(2);
    EXPECT_EQ(stopped.count(), 1U);
}

TYPED_TEST(StoreSuite, AWatchSaysThatItsPastIsForgottenAndGoesOn)
{
    const StoreWrite first = this->store_->create("a", "one");
    this->store_->write("a", "two", 1);
    this->backend_.forget(*this->store_);
    Events events;
    const auto watch = this->store_->watch("a", first.revision, events.callback());
    ASSERT_TRUE(events.waitFor([](const StoreEvent &event) { return event.kind == StoreEvent::Kind::lost; }));
    this->store_->write("a", "three", 2);
    ASSERT_TRUE(events.waitFor([](const StoreEvent &event) { return told(event) == "put a three v3"; }));
    const auto seen = events.wait(2);
    EXPECT_EQ(told(seen.front()), "lost");
    EXPECT_GT(seen.front().item.revision, first.revision + 1);
    EXPECT_LE(seen.front().item.revision, seen.back().item.revision);
}

TYPED_TEST(StoreSuite, AWatchOfAllThatIsRememberedLosesNothing)
{
    this->store_->create("a", "one");
    this->backend_.forget(*this->store_);
    this->store_->write("a", "two", 1);
    Events events;
    const auto watch = this->store_->watch("a", 0, events.callback());
    ASSERT_TRUE(events.waitFor([](const StoreEvent &event) { return told(event) == "put a two v2"; }));
    EXPECT_FALSE(told(events.wait(1)).front() == "lost");
}

TYPED_TEST(StoreSuite, ACallbackMayUseTheStoreAndHoldsUpNoOtherWatch)
{
    Events events;
    std::mutex gate;
    std::unique_lock closed(gate);
    StoreResult inside = StoreResult::unknown;
    const auto slow = this->store_->watch("a", 0, [&](const StoreEvent &) {
        inside = this->store_->create("b", "from the callback").result;
        const std::scoped_lock wait(gate);
    });
    const auto quick = this->store_->watch("", 0, events.callback());
    this->store_->create("a", "one");
    EXPECT_THAT(told(events.wait(2)), ElementsAre("put a one v1", "put b from the callback v1"));
    closed.unlock();
    EXPECT_TRUE(eventually([&] { return this->store_->read("b").result == StoreResult::done; }));
    this->store_->write("a", "two", 1);
    EXPECT_THAT(events.wait(3), SizeIs(3));
}

// ---- several at once

TYPED_TEST(StoreSuite, NoWriteIsLostBetweenHandlesThatCompete)
{
    constexpr int kEach = 40;
    const auto other = this->open();
    this->store_->create("count", "0");
    const auto countUp = [](host::Store &store) {
        for (int done = 0; done < kEach;) {
            const auto found = store.read("count");
            const int next = std::stoi(found.item.value) + 1;
            done += store.write("count", std::to_string(next), found.item.version).result == StoreResult::done ? 1 : 0;
        }
    };
    std::thread first(countUp, std::ref(*this->store_));
    std::thread second(countUp, std::ref(*other));
    first.join();
    second.join();
    EXPECT_EQ(this->store_->read("count").item.value, std::to_string(2 * kEach));
    EXPECT_EQ(this->store_->read("count").item.version, 2U * kEach + 1);
}

// ---- answers that are lost

TYPED_TEST(StoreSuite, AWriteWhoseAnswerIsLostIsSettledAsDone)
{
    LossyStore lossy(*this->store_);
    this->store_->create("a", "one");
    lossy.lose(LossyStore::Loss::answer);
    const StoreWrite written = writeSettled(lossy, "a", "two", 1);
    EXPECT_EQ(written.result, StoreResult::done);
    EXPECT_EQ(written.version, 2U);
    EXPECT_EQ(written.revision, this->store_->read("a").item.revision);
    EXPECT_EQ(lossy.changes(), 1);
}

TYPED_TEST(StoreSuite, AWriteThatIsLostItselfIsMadeAgain)
{
    LossyStore lossy(*this->store_);
    this->store_->create("a", "one");
    lossy.lose(LossyStore::Loss::request);
    EXPECT_EQ(writeSettled(lossy, "a", "two", 1).result, StoreResult::done);
    EXPECT_EQ(this->store_->read("a").item.value, "two");
    EXPECT_EQ(lossy.changes(), 2);
}

TYPED_TEST(StoreSuite, AWriteWhoseAnswerIsLostIsDoneAlsoWhenSomebodyWroteAfterIt)
{
    LossyStore lossy(*this->store_);
    this->store_->create("a", "one");
    lossy.lose(LossyStore::Loss::answer);
    lossy.afterChange([&] { this->store_->write("a", "theirs", 2); });
    const StoreWrite written = writeSettled(lossy, "a", "two", 1);
    EXPECT_EQ(written.result, StoreResult::done);
    EXPECT_EQ(written.version, 2U);
    EXPECT_EQ(this->store_->read("a").item.value, "theirs");
}

TYPED_TEST(StoreSuite, AWriteThatIsLostAndOvertakenIsRefused)
{
    LossyStore lossy(*this->store_);
    this->store_->create("a", "one");
    lossy.lose(LossyStore::Loss::request);
    lossy.afterChange([&] { this->store_->write("a", "theirs", 1); });
    EXPECT_EQ(writeSettled(lossy, "a", "two", 1).result, StoreResult::differs);
    EXPECT_EQ(this->store_->read("a").item.value, "theirs");
}

TYPED_TEST(StoreSuite, ACreationIsSettledLikeAWrite)
{
    LossyStore lossy(*this->store_);
    lossy.lose(LossyStore::Loss::answer);
    EXPECT_EQ(createSettled(lossy, "a", "mine").result, StoreResult::done);
    lossy.lose(LossyStore::Loss::request);
    EXPECT_EQ(createSettled(lossy, "a", "other").result, StoreResult::exists);
    lossy.lose(LossyStore::Loss::request);
    EXPECT_EQ(createSettled(lossy, "b", "mine").result, StoreResult::done);
}

TYPED_TEST(StoreSuite, AWriteStaysUnknownWhenTheStoreDoesNotTell)
{
    LossyStore lossy(*this->store_);
    this->store_->create("a", "one");
    lossy.lose(LossyStore::Loss::answer);
    lossy.loseReads(true);
    EXPECT_EQ(writeSettled(lossy, "a", "two", 1).result, StoreResult::unknown);
}

// ---- a store that goes and comes back

TYPED_TEST(StoreSuite, AStoreThatIsGoneAnswersUnknownAndWorksAgainWhenItIsBack)
{
    const auto store = host::openStore(this->backend_.settings());
    store->create("a", "one");
    const auto lease = store->grant(seconds(60));
    EXPECT_TRUE(store->status().reachable);
    EXPECT_EQ(store->status().error, "");
    this->backend_.takeAway();
    EXPECT_EQ(store->read("a").result, StoreResult::unknown);
    EXPECT_EQ(store->create("b", "").result, StoreResult::unknown);
    EXPECT_EQ(store->write("a", "", 1).result, StoreResult::unknown);
    EXPECT_EQ(store->remove("a").result, StoreResult::unknown);
    EXPECT_EQ(store->list("").result, StoreResult::unknown);
    EXPECT_EQ(store->readBack("a", 1).result, StoreResult::unknown);
    EXPECT_EQ(store->grant(seconds(5)).result, StoreResult::unknown);
    EXPECT_EQ(store->keepAlive(lease.lease).result, StoreResult::unknown);
    EXPECT_EQ(store->revoke(lease.lease), StoreResult::unknown);
    EXPECT_EQ(writeSettled(*store, "a", "", 1).result, StoreResult::unknown);
    EXPECT_FALSE(store->status().reachable);
    EXPECT_THAT(store->status().error, HasSubstr("cluster store "));
    this->backend_.giveBack();
    EXPECT_EQ(store->write("a", "two", 1).result, StoreResult::done);
    EXPECT_EQ(store->keepAlive(lease.lease).result, StoreResult::done);
    EXPECT_TRUE(store->status().reachable);
}

TYPED_TEST(StoreSuite, AWatchMissesNothingWhileTheStoreIsGone)
{
    Events events;
    const auto watch = this->store_->watch("a", 0, events.callback());
    this->store_->create("a1", "before");
    events.wait(1);
    this->backend_.takeAway();
    EXPECT_EQ(this->store_->read("a1").result, StoreResult::unknown);
    this->backend_.giveBack();
    this->open()->create("a2", "after");
    EXPECT_THAT(told(events.wait(2)), ElementsAre("put a1 before v1", "put a2 after v1"));
}

TYPED_TEST(StoreSuite, AWatchMayStartAndStopWhileTheStoreIsGone)
{
    Events events;
    this->store_->create("a", "one");
    this->backend_.takeAway();
    this->store_->watch("a", 0, events.callback()).reset();
    const auto watch = this->store_->watch("a", 0, events.callback());
    this->backend_.giveBack();
    EXPECT_THAT(told(events.wait(1)), ElementsAre("put a one v1"));
}

} // namespace
