// The name service on both back ends of the cluster store.
#include "store_backends.h"

#include <atomic>
#include <cerrno>
#include <cluster/name_service.h>
#include <future>
#include <gmock/gmock.h>
#include <mutex>
#include <set>

using host::NameService;
using store_test::Events;
using store_test::LossyStore;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

struct Found {
    int32_t ret = 0;
    bool hasInfo = false;
    int64_t version = 0;
    bool hasValue = false;
    std::string value;
    std::thread::id thread;
};

void keep(int32_t ret, const ns_info_t *info, void *context)
{
    Found found{ret, info != nullptr, 0, false, {}, std::this_thread::get_id()};
    if (info != nullptr) {
        found.version = info->version;
        found.hasValue = info->value != nullptr;
        found.value.assign(static_cast<const char *>(info->value), info->length);
    }
    static_cast<std::promise<Found> *>(context)->set_value(found);
}

Found readName(NameService &names, const std::string &key)
{
    std::promise<Found> promise;
    EXPECT_EQ(names.read(key, keep, &promise), 0);
    return promise.get_future().get();
}

const std::string kKey = "nasctrl/names/0/NAME";

template <typename Backend>
class NameServiceSuite : public testing::Test {
protected:
    std::shared_ptr<host::Store> open() { return host::openStore(backend_.settings()); }

    Backend backend_;
    std::shared_ptr<host::Store> store_ = open();
    NameService names_{store_};
};

struct BackendNames {
    template <typename Backend>
    static std::string GetName(int)
    {
        return std::is_same_v<Backend, store_test::SqliteBackend> ? "Sqlite" : "Etcd";
    }
};

using Backends = testing::Types<store_test::SqliteBackend, store_test::EtcdBackend>;
TYPED_TEST_SUITE(NameServiceSuite, Backends, BackendNames);

TYPED_TEST(NameServiceSuite, CreatesANameOnce)
{
    EXPECT_EQ(this->names_.create(kKey, "first"), 0);
    EXPECT_EQ(this->names_.create(kKey, "second"), 2);
    const Found found = readName(this->names_, kKey);
    EXPECT_EQ(found.ret, 0);
    EXPECT_EQ(found.version, 1);
    EXPECT_EQ(found.value, "first");
}

TYPED_TEST(NameServiceSuite, AnswersAReadOnAThreadOfItsOwn)
{
    this->names_.create(kKey, std::string_view("a\0b", 3));
    const Found found = readName(this->names_, kKey);
    EXPECT_NE(found.thread, std::this_thread::get_id());
    EXPECT_EQ(found.value, std::string("a\0b", 3));
}

TYPED_TEST(NameServiceSuite, ReadsANameThatIsNotThereAsAnError)
{
    const Found found = readName(this->names_, kKey);
    EXPECT_EQ(found.ret, -ENOENT);
    EXPECT_FALSE(found.hasInfo);
}

TYPED_TEST(NameServiceSuite, ANameWithoutAValueHasANullValue)
{
    this->names_.create(kKey, "");
    const Found found = readName(this->names_, kKey);
    EXPECT_EQ(found.ret, 0);
    EXPECT_TRUE(found.hasInfo);
    EXPECT_FALSE(found.hasValue);
}

TYPED_TEST(NameServiceSuite, WritesOnlyTheVersionThatIsExpected)
{
    ns_state_t state{7, 8, 9};
    EXPECT_EQ(this->names_.set(kKey, "v", 1, state), -ENOENT);
    this->names_.create(kKey, "first");
    EXPECT_EQ(this->names_.set(kKey, "v", 2, state), -ESTALE);
    EXPECT_EQ(state.word0, 7U);
    EXPECT_EQ(state.version, 9U);
    EXPECT_EQ(this->names_.set(kKey, "second", 1, state), 0);
    EXPECT_EQ(state.version, 2U);
    EXPECT_EQ(state.word0, this->store_->read(kKey).item.revision);
    EXPECT_EQ(state.word1, 0U);
    EXPECT_EQ(readName(this->names_, kKey).value, "second");
}

TYPED_TEST(NameServiceSuite, AKeyThatHoldsNoNameIsAnError)
{
    this->store_->create(kKey, "too short");
    EXPECT_EQ(readName(this->names_, kKey).ret, -EPROTO);
}

TYPED_TEST(NameServiceSuite, AWriteWhoseAnswerIsLostIsDone)
{
    auto lossy = std::make_shared<LossyStore>(*this->store_);
    NameService names(lossy);
    names.create(kKey, "first");
    lossy->lose(LossyStore::Loss::answer);
    ns_state_t state{};
    EXPECT_EQ(names.set(kKey, "second", 1, state), 0);
    EXPECT_EQ(state.version, 2U);
    lossy->lose(LossyStore::Loss::request);
    EXPECT_EQ(names.set(kKey, "third", 2, state), 0);
    EXPECT_EQ(readName(names, kKey).version, 3);
}

// An equal value of another node is not one's own.
TYPED_TEST(NameServiceSuite, AWriteThatIsLostWhileAnotherNodeWritesTheSameValueIsRefused)
{
    auto lossy = std::make_shared<LossyStore>(*this->store_);
    NameService names(lossy);
    names.create(kKey, "first");
    lossy->lose(LossyStore::Loss::request);
    lossy->afterChange([&] {
        ns_state_t theirs{};
        this->names_.set(kKey, "same", 1, theirs);
    });
    ns_state_t state{};
    EXPECT_EQ(names.set(kKey, "same", 1, state), -ESTALE);
}

// A writer to whom the store told nothing of its first try, and that tries again when it can.
class Unsettled {
public:
    Unsettled(NameService &creator, const std::shared_ptr<LossyStore> &lossy) : names_(lossy), lossy_(lossy)
    {
        creator.create(kKey, "first");
    }
    void tryInVain(LossyStore::Loss loss)
    {
        lossy_->lose(loss);
        lossy_->loseReads(true);
        EXPECT_EQ(set(1), -ETIMEDOUT);
        lossy_->loseReads(false);
    }
    int32_t set(uint64_t version) { return names_.set(kKey, "mine", version, state); }

    ns_state_t state{};

private:
    NameService names_;
    std::shared_ptr<LossyStore> lossy_;
};

std::vector<std::string> valuesOf(host::Store &store)
{
    std::vector<std::string> values;
    for (uint64_t version = 1; version <= store.read(kKey).item.version; ++version) {
        values.push_back(host::valueOfName(store.readBack(kKey, version).item.value).value_or("none"));
    }
    return values;
}

TYPED_TEST(NameServiceSuite, ATryThatWasMadeAfterAllIsNotMadeAgain)
{
    const auto lossy = std::make_shared<LossyStore>(*this->store_);
    Unsettled writer(this->names_, lossy);
    writer.tryInVain(LossyStore::Loss::answer);
    ns_state_t theirs{};
    ASSERT_EQ(this->names_.set(kKey, "theirs", 2, theirs), 0);

    EXPECT_EQ(writer.set(3), 0);

    EXPECT_EQ(writer.state.version, 2U);
    EXPECT_EQ(writer.state.word0, this->store_->readBack(kKey, 2).item.revision);
    EXPECT_THAT(valuesOf(*this->store_), ElementsAre("first", "mine", "theirs"));
}

TYPED_TEST(NameServiceSuite, ATryThatWasLostIsMadeAgain)
{
    const auto lossy = std::make_shared<LossyStore>(*this->store_);
    Unsettled writer(this->names_, lossy);
    writer.tryInVain(LossyStore::Loss::request);

    EXPECT_EQ(writer.set(1), 0);

    EXPECT_EQ(writer.state.version, 2U);
    EXPECT_THAT(valuesOf(*this->store_), ElementsAre("first", "mine"));
}

TYPED_TEST(NameServiceSuite, ATryInWhosePlaceAnotherStandsIsMadeAgainBehindIt)
{
    const auto lossy = std::make_shared<LossyStore>(*this->store_);
    Unsettled writer(this->names_, lossy);
    writer.tryInVain(LossyStore::Loss::request);
    ns_state_t theirs{};
    ASSERT_EQ(this->names_.set(kKey, "theirs", 1, theirs), 0);

    EXPECT_EQ(writer.set(2), 0);

    EXPECT_THAT(valuesOf(*this->store_), ElementsAre("first", "theirs", "mine"));
}

TYPED_TEST(NameServiceSuite, ATryIsNotMadeAgainWhileTheStoreDoesNotTellWhatBecameOfIt)
{
    const auto lossy = std::make_shared<LossyStore>(*this->store_);
    Unsettled writer(this->names_, lossy);
    writer.tryInVain(LossyStore::Loss::answer);
    const int changes = lossy->changes();
    lossy->loseReads(true);
    EXPECT_EQ(writer.set(2), -ETIMEDOUT);
    EXPECT_EQ(writer.set(2), -ETIMEDOUT);
    EXPECT_EQ(lossy->changes(), changes);
    lossy->loseReads(false);

    EXPECT_EQ(writer.set(2), 0);
    EXPECT_THAT(valuesOf(*this->store_), ElementsAre("first", "mine"));
}

TYPED_TEST(NameServiceSuite, AStoreThatDoesNotTellIsATimeOutAndWorksAgainWhenItIsBack)
{
    NameService names(host::openStore(this->backend_.settings()));
    names.create(kKey, "first");
    this->backend_.takeAway();
    ns_state_t state{};
    EXPECT_EQ(names.create(kKey, "second"), -ETIMEDOUT);
    EXPECT_EQ(names.set(kKey, "second", 1, state), -ETIMEDOUT);
    EXPECT_EQ(readName(names, kKey).ret, -ETIMEDOUT);
    this->backend_.giveBack();
    EXPECT_EQ(names.set(kKey, "second", 1, state), 0);
    EXPECT_EQ(readName(names, kKey).value, "second");
}

// Reads and writes until that many values went in, each once; returns how many rounds others won.
int publish(NameService &names, const std::string &node, int count)
{
    int lost = 0;
    for (int done = 0; done < count;) {
        const Found found = readName(names, kKey);
        ns_state_t state{};
        const int32_t code = names.set(kKey, node + std::to_string(done), static_cast<uint64_t>(found.version), state);
        EXPECT_TRUE(code == 0 || code == -ESTALE) << code;
        (code == 0 ? done : lost) += 1;
    }
    return lost;
}

TYPED_TEST(NameServiceSuite, NodesThatPublishAtOnceTakeTurnsAndNoneIsLost)
{
    constexpr int kEach = 12;
    NameService other(this->open());
    this->names_.create(kKey, "first");
    Events events;
    const auto watch = this->store_->watch(kKey, this->store_->list("").revision, events.callback());
    auto theirs = std::async(std::launch::async, [&] { return publish(other, "two-", kEach); });
    publish(this->names_, "one-", kEach);
    theirs.get();
    const auto history = events.wait(2 * kEach);
    ASSERT_THAT(history, SizeIs(2 * kEach));
    std::set<std::string> values;
    uint64_t version = 1;
    for (const host::StoreEvent &event : history) {
        EXPECT_EQ(event.item.version, ++version);
        values.insert(host::valueOfName(event.item.value).value_or("none"));
    }
    EXPECT_THAT(values, SizeIs(2 * kEach));
    EXPECT_EQ(readName(other, kKey).version, 2 * kEach + 1);
}

// ---- the functions that the library calls

class NodesNames : public testing::Test {
protected:
    void start()
    {
        host::startClusterStore(backend_.settings());
        host::startNameService();
    }
    void TearDown() override
    {
        host::stopNameService();
        host::stopClusterStore();
    }

    store_test::SqliteBackend backend_;
};

TEST_F(NodesNames, AreErrorsWithoutAStore)
{
    ns_state_t state{};
    std::promise<Found> promise;
    EXPECT_EQ(ns_create(0, "NAME", 0, "v", 1), -ENOTCONN);
    EXPECT_EQ(ns_getAsyn(0, "NAME", keep, &promise), -ENOTCONN);
    EXPECT_EQ(ns_set(0, "NAME", "v", 1, 1, &state), -ENOTCONN);
}

TEST_F(NodesNames, GoFromCreationToReadAndWrite)
{
    start();
    EXPECT_EQ(ns_create(0, "NAME", 0, "first", 5), 0);
    EXPECT_EQ(ns_create(0, "NAME", 0, "again", 5), 2);
    ns_state_t state{};
    EXPECT_EQ(ns_set(0, "NAME", "second", 6, 1, &state), 0);
    EXPECT_EQ(state.version, 2U);
    std::promise<Found> promise;
    EXPECT_EQ(ns_getAsyn(0, "NAME", keep, &promise), 0);
    const Found found = promise.get_future().get();
    EXPECT_EQ(found.version, 2);
    EXPECT_EQ(found.value, "second");
}

TEST_F(NodesNames, AHandleIsANamespaceOfItsOwn)
{
    start();
    EXPECT_EQ(ns_create(0, "NAME", 0, "zero", 4), 0);
    EXPECT_EQ(ns_create(7, "NAME", 0, "seven", 5), 0);
    EXPECT_EQ(host::valueOfName(host::clusterStore()->read("nasctrl/names/0/NAME").item.value), "zero");
    EXPECT_EQ(host::valueOfName(host::clusterStore()->read("nasctrl/names/7/NAME").item.value), "seven");
}

TEST_F(NodesNames, RefuseArgumentsThatMakeNoSense)
{
    start();
    const std::string longest(host::kMaxNameLength, 'n');
    const std::string tooLong(host::kMaxNameLength + 1, 'n');
    const std::string large(host::kMaxNameValue + 1, 'v');
    ns_state_t state{};
    for (const char *name : {static_cast<const char *>(nullptr), "", tooLong.c_str()}) {
        EXPECT_EQ(ns_create(0, name, 0, "v", 1), -EINVAL);
        EXPECT_EQ(ns_getAsyn(0, name, keep, nullptr), -EINVAL);
        EXPECT_EQ(ns_set(0, name, "v", 1, 1, &state), -EINVAL);
    }
    EXPECT_EQ(ns_create(0, "NAME", 0, nullptr, 1), -EINVAL);
    EXPECT_EQ(ns_create(0, "NAME", 0, large.data(), static_cast<uint32_t>(large.size())), -EINVAL);
    EXPECT_EQ(ns_getAsyn(0, "NAME", nullptr, nullptr), -EINVAL);
    EXPECT_EQ(ns_set(0, "NAME", nullptr, 1, 1, &state), -EINVAL);
    EXPECT_EQ(ns_set(0, "NAME", "v", 1, 1, nullptr), -EINVAL);
    EXPECT_EQ(ns_create(0, longest.c_str(), 0, nullptr, 0), 0);
}

// A store that has no memory for its first read.
class PoorStore : public LossyStore {
public:
    using LossyStore::LossyStore;
    host::StoreRead read(const std::string &key) override
    {
        if (std::exchange(isPoor_, false)) {
            throw std::bad_alloc();
        }
        return LossyStore::read(key);
    }

private:
    bool isPoor_ = true;
};

TEST_F(NodesNames, AReadWithoutMemoryIsAnErrorAndTheNextOneIsAnswered)
{
    const auto store = host::openStore(backend_.settings());
    NameService names(std::make_shared<PoorStore>(*store));
    names.create(kKey, "first");
    const Found refused = readName(names, kKey);
    EXPECT_EQ(refused.ret, -ENOMEM);
    EXPECT_FALSE(refused.hasInfo);
    EXPECT_EQ(readName(names, kKey).value, "first");
}

// A store whose reads wait at a gate, so that others queue up behind.
class GatedStore : public LossyStore {
public:
    using LossyStore::LossyStore;
    host::StoreRead read(const std::string &key) override
    {
        entered = true;
        const std::scoped_lock wait(gate);
        return LossyStore::read(key);
    }
    std::mutex gate;
    std::atomic<bool> entered = false; // by any read
};

TEST_F(NodesNames, ReadsThatWaitAreBoundedAndAnsweredWhenTheServiceStops)
{
    constexpr size_t kMany = 1100;
    const auto store = host::openStore(backend_.settings());
    const auto gated = std::make_shared<GatedStore>(*store);
    std::vector<std::promise<Found>> promises(kMany);
    std::unique_lock closed(gated->gate);
    NameService names(gated);
    EXPECT_EQ(names.read(kKey, keep, &promises[0]), 0);
    EXPECT_TRUE(store_test::eventually([&] { return gated->entered.load(); })); // so that it queues no more
    size_t accepted = 1;
    while (accepted < kMany && names.read(kKey, keep, &promises[accepted]) == 0) {
        ++accepted;
    }
    std::promise<Found> refused;
    EXPECT_GE(accepted, 1024U);
    EXPECT_EQ(names.read(kKey, keep, &refused), -EBUSY);
    auto stopped = std::async(std::launch::async, [&] { names.stop(); });
    EXPECT_TRUE(store_test::eventually([&] { return names.read(kKey, keep, &refused) == -ESHUTDOWN; }));
    closed.unlock();
    stopped.get();
    size_t shut = 0;
    for (size_t i = 0; i < accepted; ++i) {
        shut += promises[i].get_future().get().ret == -ESHUTDOWN ? 1 : 0;
    }
    EXPECT_GE(shut, accepted - 1); // the first one may have been under way
}

} // namespace
