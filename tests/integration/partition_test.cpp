// Two nodes in networks of their own, joined by a cable that is pulled and put back. The store is at the first one's
// end.
#include "cluster_member.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <memory>

namespace integration {
namespace {

using nlohmann::json;

constexpr const char *kNear = "10.66.0.1";
constexpr const char *kFar = "10.66.0.2";
constexpr uint32_t kNearClient = 11; // joined by the node that stays
constexpr uint32_t kFarClient = 12;  // joined by the one that is cut off
constexpr std::chrono::seconds kTtl{2};

class Partition : public testing::Test {
protected:
    void SetUp() override
    {
        if (!near_.exists() || !far_.exists()) {
            GTEST_SKIP() << "this machine refuses network namespaces, or has no unshare, nsenter or ip";
        }
        layCable();
        etcd_ = std::make_unique<EtcdCluster>(1, kNear, near_.prefix());
        cutOff_ = std::make_unique<Member>(2, etcd_->storeOption());
        cutOff_->node().enter(far_);
        staying_ = std::make_unique<Member>(1, etcd_->storeOption());
        staying_->node().enter(near_);
        cutOff_->start(); // the first becomes the master
        ASSERT_TRUE(support::eventually([this] { return isMaster(*cutOff_); }));
        staying_->start();
        ASSERT_TRUE(support::eventually([this] { return staying_->view().at("connected") == true; }));
    }
    void layCable() const
    {
        ip(near_,
           {"link", "add", "cable", "type", "veth", "peer", "name", "cable", "netns", std::to_string(far_.pid())});
        ip(near_, {"address", "add", std::string(kNear) + "/24", "dev", "cable"});
        ip(far_, {"address", "add", std::string(kFar) + "/24", "dev", "cable"});
        ip(far_, {"link", "set", "cable", "up"});
        putCable();
    }
    void pullCable() const { ip(near_, {"link", "set", "cable", "down"}); }
    void putCable() const { ip(near_, {"link", "set", "cable", "up"}); }
    static void ip(const PrivateNetwork &network, std::vector<std::string> words)
    {
        words.insert(words.begin(), "ip");
        const Outcome outcome = network.run(words);
        ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    }

    static bool isMaster(const Member &member) { return member.node().json({"master"}).at("is_master") == true; }
    static std::string state(const Member &member, uint32_t lsId)
    {
        const json view = member.view();
        for (const json &row : view.at("clients")) {
            if (row.at("ls") == lsId) {
                return row.at("state");
            }
        }
        return "unknown";
    }
    // The events behind the last of that name, "MODULE EVENT" each.
    static std::vector<std::string> after(const Member &member, const std::string &name)
    {
        std::vector<std::string> lines;
        for (const json &event : member.events()) {
            lines.push_back(event.at("module").get<std::string>() + " " + event.at("event").get<std::string>());
            if (lines.back() == name) {
                lines.clear();
            }
        }
        return lines;
    }
    void joinClients()
    {
        nearClient_.join(staying_->node(), kTtl);
        farClient_.join(cutOff_->node(), kTtl);
        for (const Member *member : {staying_.get(), cutOff_.get()}) {
            for (const uint32_t lsId : {kNearClient, kFarClient}) {
                ASSERT_TRUE(support::eventually([&] { return state(*member, lsId) == "running"; })) << lsId;
            }
        }
        for (Member *member : {staying_.get(), cutOff_.get()}) {
            member->lock(kNearClient);
            member->lock(kFarClient);
        }
    }
    // Asked in this order, two masters at once would be seen, whatever time passes between the two answers.
    bool takesOverAlone() const
    {
        const bool taken = isMaster(*staying_);
        EXPECT_FALSE(taken && isMaster(*cutOff_)) << "two masters";
        return taken;
    }

    PrivateNetwork near_;
    PrivateNetwork far_{&near_};
    std::unique_ptr<EtcdCluster> etcd_;
    std::unique_ptr<Member> staying_;
    std::unique_ptr<Member> cutOff_;
    Client nearClient_{kNearClient};
    Client farClient_{kFarClient};
};

TEST_F(Partition, LetsTheNodeThatIsCutOffBelieveNothingAndCatchUpWhenItIsBack)
{
    ASSERT_EQ(staying_->node().ctl({"ns", "create"}).exitCode, 0);
    ASSERT_TRUE(staying_->publish());
    ASSERT_TRUE(cutOff_->publish());
    joinClients();

    pullCable();

    EXPECT_TRUE(support::eventually([this] { return takesOverAlone(); }));
    EXPECT_TRUE(support::eventually([this] { return cutOff_->view().at("connected") == false; }));
    EXPECT_TRUE(support::eventually([this] { return state(*staying_, kFarClient) == "faulty"; }));
    EXPECT_TRUE(support::eventually([this] { return !farClient_.lives(); })) << "its lease cannot be renewed";
    EXPECT_TRUE(nearClient_.lives());
    EXPECT_TRUE(cutOff_->view().at("master").is_null());
    EXPECT_FALSE(cutOff_->publish());
    EXPECT_TRUE(staying_->publish());
    EXPECT_THAT(after(*cutOff_, "CM DISCONNECTED"), testing::Each("CM MASTER")) << "it acts on nothing";
    EXPECT_EQ(state(*cutOff_, kFarClient), "running") << "as it knew it last";

    putCable();

    EXPECT_TRUE(support::eventually([this] { return cutOff_->view() == staying_->view(); })) << cutOff_->view() << "\n"
                                                                                             << staying_->view();
    EXPECT_TRUE(isMaster(*staying_));
    EXPECT_EQ(cutOff_->view().at("master"), 1);
    EXPECT_TRUE(support::eventually([this] { return cutOff_->publish(); }));
    const ClusterRecord record(etcd_->history("nasctrl/"));
    record.checkViews();
    std::vector<Publication> published = staying_->published();
    published.insert(published.end(), cutOff_->published().begin(), cutOff_->published().end());
    record.checkPublications(published);
    for (const Member *member : {staying_.get(), cutOff_.get()}) {
        record.checkLife(member->readWhole(record));
    }
    EXPECT_THAT(after(*cutOff_, "CM CONNECTED"),
                testing::IsSupersetOf({"CM HEART_BREAK", "DLG NODE_FAULT", "FMM NODE_FAULT", "NLM LOCKS_RELEASED"}));
}

} // namespace
} // namespace integration
