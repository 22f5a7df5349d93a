// File locks and events of a real node, as an operator handles them.
#include "node.h"

#include <csignal>
#include <gmock/gmock.h>
#include <unistd.h>

namespace {

using integration::Node;

TEST(FileLocks, AreTakenForClientsAndConflictsNameTheHolder)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    EXPECT_EQ(node.ctl({"locks", "take", "--ls", "12", "/a", "0", "10"}).out, "LS  FILE  START  LENGTH  KIND\n"
                                                                              "12  /a        0      10  exclusive\n");
    const auto refused = node.ctl({"locks", "take", "--ls", "13", "/a", "9", "0", "--shared"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "nasctl: locks take: refused by the node: LS 12 holds exclusive bytes 0 to 9\n");
    EXPECT_EQ(node.ctl({"locks", "release", "--ls", "12"}).out, "LS 12 holds no file locks\n");
    EXPECT_EQ(node.ctl({"locks", "take", "--ls", "13", "/a", "9", "0", "--shared"}).exitCode, 0);
    EXPECT_EQ(node.json({"locks", "ls"})["locks"][0]["ls_id"], 13);
    EXPECT_EQ(node.stop(SIGTERM), 0);
}

TEST(Followers, OfEventsDoNotHoldUpTheNodesEnd)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    const support::Pipe out;
    const pid_t follower = support::spawn({NASCTL, "--root", node.root(), "events", "--follow", "--after", "0"},
                                          {.out = out.write, .err = out.write});
    close(out.write);
    EXPECT_EQ(node.stop(SIGTERM), 0);
    EXPECT_EQ(support::exitCodeOf(follower), 1);
    EXPECT_THAT(support::readAll(out.read), testing::HasSubstr("nasctl: events: "));
}

} // namespace
