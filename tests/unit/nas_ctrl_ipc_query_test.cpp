// The ten questions whose answer is copied for the caller: what each sends, logs, hands out and releases.
#include "nas_ip_mgr_faults.h"
#include <cstring>
#include <fake_host.h>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <nasctrl/host/memory.h>
#include <nasctrl/ipc.h>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Texts = std::vector<std::string>;

const std::string kFourZeroBytes(4, '\0');

std::string words(std::initializer_list<uint32_t> values)
{
    std::string bytes;
    for (const uint32_t value : values) {
        bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
    }
    return bytes;
}

std::string padded(std::string text, size_t size)
{
    text.resize(size, '\0');
    return text;
}

// Bytes without a NUL among them.
std::string pattern(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>('A' + i % 50);
    }
    return bytes;
}

// A record for neighbours as its caller gives it: EDS LS id -5, a count, and room for `entries` of them.
std::string neighbourRecord(uint32_t count, size_t entries)
{
    std::string bytes = pattern(72 + 72 * entries);
    bytes.replace(0, 4, words({static_cast<uint32_t>(-5)}));
    bytes.replace(68, 4, words({count}));
    return bytes;
}

const std::string kIp = padded("10.1.2.3", 64);
const std::string kZone = words({7, 4000000000U}) + padded("sub-a", 64);
const std::string kNeighbours = neighbourRecord(2, 2);

// The answer of these tests: result -3, value 4000000041, then text.
const std::string kAnswer = words({static_cast<uint32_t>(-3), 4000000041U}) + padded("/dtree/one", 12);

struct Question {
    const char *name;
    uint32_t type;
    const std::string *request;
    size_t minimum;
    std::function<int32_t(const void *input, void **rsp)> ask;
    std::function<void(void *copy)> release;
    Texts begin;   // its own lines: before the call,
    Texts success; // after the answer above,
    Texts failure; // and after the call failed with -5
};

void releaseWith(void (*release)(void **), void *copy)
{
    release(&copy);
    EXPECT_EQ(copy, nullptr);
}

void freeByPool(void *copy)
{
    nas_mem_comm_free(copy, "test", 0);
}

const std::vector<Question> kQuestions = {
    {"GetCurNodeIpList",
     1,
     &kFourZeroBytes,
     8,
     [](const void *, void **rsp) {
         node_ip_list *list = nullptr;
         const int32_t ret = GetCurNodeIpList(rsp != nullptr ? &list : nullptr);
         if (list != nullptr) {
             *rsp = list;
         }
         return ret;
     },
     FreeCurNodeIpList,
     {},
     {},
     {}},
    {"GetHdfsConf",
     3,
     &kIp,
     4172,
     [](const void *ip, void **rsp) { return GetHdfsConf(static_cast<const char *>(ip), rsp); },
     FreeHdfsConf,
     {"4 PROTOCOL: Begin GetHdfsConf by IP(10.1.2.3)."},
     {"4 PROTOCOL: End GetHdfsConf by IP(10.1.2.3), response(result:-3, fsid:4000000041, dtreePath:/dtree/one)."},
     {"4 PROTOCOL: End GetHdfsConf by IP(10.1.2.3), ret: -5."}},
    {"GetHdfsNeighborIpList",
     4,
     &kNeighbours,
     8,
     GetHdfsNeighborIpList,
     FreeHdfsNeighborIpList,
     {"4 PROTOCOL: Begin GetHdfsNeighborIpList by edsLsid(-5)."},
     {"4 PROTOCOL: End GetHdfsNeighborIpList by edsLsid(-5), response(result: -3, ipCount: 4000000041)."},
     {"4 PROTOCOL: End GetHdfsNeighborIpList by edsLsid(-5), ret: -5."}},
    {"GetHdfsZoneIpList",
     5,
     &kFourZeroBytes,
     12,
     [](const void *, void **rsp) { return GetHdfsZoneIpList(rsp); },
     FreeHdfsZoneIpList,
     {},
     {"4 PROTOCOL: GetHdfsZoneIpList success, response(result: -3, ipCount: 4000000041)."},
     {"4 PROTOCOL: GetHdfsZoneIpList failed, ret: -5."}},
    {"GetCurNodeIfaceList",
     6,
     &kFourZeroBytes,
     8,
     [](const void *, void **rsp) { return GetCurNodeIfaceList(rsp); },
     FreeCurNodeIfaceList,
     {},
     {},
     {}},
    {"GetHdfsGlobalZoneIpList",
     9,
     &kZone,
     12,
     [](const void *req, void **rsp) { return GetHdfsGlobalZoneIpList(static_cast<const zone_request *>(req), rsp); },
     freeByPool,
     {"4 PROTOCOL: Begin GetHdfsGlobalZoneIpList for fsId(7), subnet(sub-a), tenantId(4000000000)."},
     {"4 PROTOCOL: Success, response(result: -3, ipCount: 4000000041), fsId(7), subnet(sub-a), "
      "tenantId(4000000000)."},
     {"4 PROTOCOL: GetHdfsGlobalZoneIpList failed, ret: -5, fsId(7), subnet(sub-a), tenantId(4000000000)"}},
    {"GetTenantIdByIp",
     11,
     &kIp,
     8,
     [](const void *ip, void **rsp) { return GetTenantIdByIp(static_cast<const char *>(ip), rsp); },
     freeByPool,
     {"4 PROTOCOL: Begin GetTenantIdByIp by IP(10.1.2.3)."},
     {"4 PROTOCOL: End GetTenantId by IP(10.1.2.3), response(result:-3, tenantid:-294967255)."},
     {"4 PROTOCOL: End GetTenantId by IP(10.1.2.3), ret: -5."}},
    {"GetContactedZoneHdfsConfigure",
     13,
     &kFourZeroBytes,
     16,
     [](const void *, void **rsp) { return GetContactedZoneHdfsConfigure(rsp); },
     [](void *copy) { releaseWith(ReleaseContactedZoneHdfsConfigure, copy); },
     {},
     {"4 PROTOCOL: GetContactedZoneHdfsConfigure success, the result (-3)"},
     {"4 PROTOCOL: Get Contacted Zone Hdfs Configure failed, ret: -5."}},
    {"GetSubnetAllIpList",
     14,
     &kZone,
     8,
     [](const void *req, void **rsp) { return GetSubnetAllIpList(static_cast<const zone_request *>(req), rsp); },
     [](void *copy) { releaseWith(ReleaseSubnetAllIpList, copy); },
     {"4 PROTOCOL: Begin GetSubnetAllIpList subnet(sub-a)."},
     {"4 PROTOCOL: Success, response(result: -3, ipCount: 4000000041), req subnet(sub-a)."},
     {"4 PROTOCOL: GetSubnetAllIpList failed, ret: -5, subnet(sub-a)"}},
    {"GetZoneFullDomain",
     15,
     &kFourZeroBytes,
     258,
     [](const void *, void **rsp) { return GetZoneFullDomain(rsp); },
     [](void *copy) { releaseWith(ReleaseGetZoneFullDomain, copy); },
     {},
     {"4 PROTOCOL: GetZoneFullDomain success, the result (-3)"},
     {"4 PROTOCOL: GetZoneFullDomain failed, ret: -5."}},
};

Texts callLine(const Question &question)
{
    return {"class 0 PROTOCOL: Msg call type(" + std::to_string(question.type) + "), sid(6), module(18)."};
}

// A failed step's line and then the question's own, had its result been ret.
Texts failed(const Question &question, const std::string &step, int32_t ret)
{
    Texts lines = {step};
    for (std::string line : question.failure) {
        lines.push_back(line.replace(line.find("ret: -5") + 5, 2, std::to_string(ret)));
    }
    return lines;
}

Texts operator+(Texts left, const Texts &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class Queries : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        faults::reset();
    }

    // Asks with an input of its own, on the heap and not a byte longer than what is sent.
    static int32_t ask(const Question &question, void **rsp, const std::string &bytes)
    {
        const std::unique_ptr<char[]> input(new char[bytes.size()]);
        memcpy(input.get(), bytes.data(), bytes.size());
        return question.ask(input.get(), rsp);
    }
    static int32_t ask(const Question &question, void **rsp) { return ask(question, rsp, *question.request); }

    // Which part of the one question that was asked each freed block was, in the order of their release.
    static Texts freedParts()
    {
        Texts parts;
        for (const fake::FreedBlock &block : fake::freedBlocks()) {
            const bool isRequest = block.address == fake::upcalls().at(0).record.request;
            parts.push_back(isRequest ? "request" : block.func == "svr_upcall_sync" ? "response" : "copy");
        }
        return parts;
    }

    // An answer of each length comes through whole, with zeros up to the question's minimum behind it.
    void expectEveryLength(const Question &question, std::string (*answerOf)(size_t length))
    {
        for (size_t length = 1; length <= question.minimum + 9; ++length) {
            SCOPED_TRACE(std::string(question.name) + " answered with " + std::to_string(length) + " bytes");
            fake::reset();
            const std::string answer = answerOf(length);
            fake::answerUpcall(0, answer);
            ASSERT_EQ(ask(question, &output_), 0);
            const std::string expected = padded(answer, std::max(question.minimum, length));
            ASSERT_EQ(std::string(static_cast<char *>(output_), expected.size()), expected);
            question.release(output_);
            ASSERT_EQ(fake::liveBlocks(), 0U);
        }
    }

    // What stands in the output when nothing is stored.
    char untouched_ = 0;
    void *output_ = &untouched_;
};

TEST_F(Queries, SendTheirRequestAndHandOutACopy)
{
    for (const Question &question : kQuestions) {
        SCOPED_TRACE(question.name);
        fake::reset();
        fake::answerUpcall(0, kAnswer);
        ASSERT_EQ(ask(question, &output_), 0);

        EXPECT_THAT(fake::log(), question.begin + callLine(question) + question.success);
        ASSERT_EQ(fake::upcalls().size(), 1U);
        EXPECT_EQ(fake::upcalls()[0].record.type, question.type);
        EXPECT_EQ(fake::upcalls()[0].request, *question.request);
        const std::string expected = padded(kAnswer, std::max(question.minimum, kAnswer.size()));
        EXPECT_EQ(std::string(static_cast<char *>(output_), expected.size()), expected);
        EXPECT_EQ(fake::liveBlocks(), 1U);
        EXPECT_EQ(fake::liveBlocks(question.name), 1U);
        question.release(output_);
        EXPECT_EQ(fake::liveBlocks(), 0U);
    }
}

TEST_F(Queries, LogInTheNameOfTheFunctionThatWasCalled)
{
    for (const Question &question : kQuestions) {
        fake::reset();
        fake::answerUpcall(0, kAnswer);
        ask(question, &output_);
        question.release(output_);
        for (const fake::LogLine &line : fake::logLines()) {
            const bool isCall = line.level == "class 0";
            EXPECT_EQ(line.func, isCall ? "NasCtrlMsgCallSync" : question.name) << line.text;
        }
    }
}

TEST_F(Queries, TakeTheirRequestInTheirOwnName)
{
    for (const Question &question : kQuestions) {
        fake::reset();
        fake::answerUpcall(0, kAnswer);
        size_t requests = 0;
        fake::during("svr_upcall_sync", [&] { requests = fake::liveBlocks(question.name); });
        ask(question, &output_);
        EXPECT_EQ(requests, 1U) << question.name;
        question.release(output_);
    }
}

TEST_F(Queries, BringAShortAnswerUpToTheirMinimum)
{
    for (const Question &question : kQuestions) {
        expectEveryLength(question, pattern);
    }
}

TEST_F(Queries, BringAShortAnswerWhoseTextEndsUpToTheirMinimum)
{
    for (const Question &question : kQuestions) {
        expectEveryLength(question, [](size_t length) { return pattern(length - 1) + '\0'; });
    }
}

TEST_F(Queries, FailOnAnEmptyAnswerAndOnNone)
{
    for (const Question &question : kQuestions) {
        for (const bool withBlock : {true, false}) {
            SCOPED_TRACE(question.name);
            fake::reset();
            if (withBlock) {
                fake::answerUpcall(0, "");
            } else {
                fake::answerUpcallWithoutResponse(0);
            }
            output_ = &untouched_;
            EXPECT_EQ(ask(question, &output_), -12);
            EXPECT_EQ(output_, &untouched_);
            EXPECT_EQ(fake::liveBlocks(), 0U);
            EXPECT_THAT(fake::log(),
                        question.begin + callLine(question) +
                            failed(question, "3 PROTOCOL: (ret != EOK) is failed(-12), goto OUT!!!!!!!!!!!!", -12));
        }
    }
}

TEST_F(Queries, PassTheCodeOfAFailedCallOnAndFreeWhatItLeft)
{
    for (const Question &question : kQuestions) {
        SCOPED_TRACE(question.name);
        fake::reset();
        fake::answerUpcall(-5, kAnswer);
        output_ = &untouched_;
        EXPECT_EQ(ask(question, &output_), -5);
        EXPECT_EQ(output_, &untouched_);
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_THAT(fake::log(), question.begin + callLine(question) +
                                     failed(question, "3 PROTOCOL: ret is failed, goto OUT!!!!!!!!!!!!", -5));
    }
}

TEST_F(Queries, FreeTheRequestBeforeTheResponse)
{
    for (const Question &question : kQuestions) {
        for (const int32_t result : {0, -5}) {
            fake::reset();
            fake::answerUpcall(result, kAnswer);
            ASSERT_EQ(ask(question, &output_), result);
            EXPECT_THAT(freedParts(), ElementsAre("request", "response")) << question.name << " answered " << result;
            if (result == 0) {
                question.release(output_);
            }
        }
    }
}

TEST_F(Queries, WhoseAnswerCannotBeCopiedFreeItBeforeTheCopy)
{
    for (const Question &question : kQuestions) {
        SCOPED_TRACE(question.name);
        fake::reset();
        fake::answerUpcall(0, kAnswer);
        fake::during("svr_upcall_sync", [] { faults::failCopy(1, 402); });
        output_ = &untouched_;
        EXPECT_EQ(ask(question, &output_), -12);
        EXPECT_EQ(output_, &untouched_);
        EXPECT_THAT(freedParts(), ElementsAre("request", "response", "copy"));
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_THAT(fake::log(),
                    question.begin + callLine(question) +
                        failed(question, "3 PROTOCOL: (ret != EOK) is failed(-12), goto OUT!!!!!!!!!!!!", -12));
    }
}

TEST_F(Queries, WhoseRequestCannotBeCopiedSendNothing)
{
    for (const Question &question : kQuestions) {
        if (question.request == &kFourZeroBytes) {
            continue;
        }
        SCOPED_TRACE(question.name);
        fake::reset();
        fake::answerUpcall(0, kAnswer);
        faults::failCopy(1, 402);
        output_ = &untouched_;
        EXPECT_EQ(ask(question, &output_), -12);
        EXPECT_EQ(output_, &untouched_);
        EXPECT_THAT(fake::calls(), IsEmpty());
        EXPECT_EQ(fake::freedBlocks().size(), 1U);
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_THAT(fake::log(),
                    question.begin +
                        failed(question, "3 PROTOCOL: (ret != EOK) is failed(-12), goto OUT!!!!!!!!!!!!", -12));
    }
}

TEST_F(Queries, TimeOutAfterThreeAttempts)
{
    for (const Question &question : kQuestions) {
        fake::reset();
        fake::answerAlways("svr_upcall_sync", -110);
        output_ = &untouched_;
        EXPECT_EQ(ask(question, &output_), -110) << question.name;
        EXPECT_EQ(fake::upcalls().size(), 3U) << question.name;
        EXPECT_EQ(output_, &untouched_) << question.name;
        EXPECT_EQ(fake::liveBlocks(), 0U) << question.name;
    }
}

TEST_F(Queries, WithoutMemoryLeaveNothingBehind)
{
    for (const Question &question : kQuestions) {
        SCOPED_TRACE(question.name);
        const Texts expected[] = {
            question.begin + Texts{"3 PROTOCOL: reqMsg is NULL, return -ENOMEM(-12)!!!!!!!!!!!!"},
            question.begin + callLine(question) +
                failed(question, "3 PROTOCOL: (pTmpRsp == NULL) is failed(-12), goto OUT!!!!!!!!!!!!", -12)};
        uint64_t nth = 1;
        for (const Texts &lines : expected) {
            fake::reset();
            fake::answerUpcall(0, kAnswer);
            fake::failAllocation(nth++);
            output_ = &untouched_;
            EXPECT_EQ(ask(question, &output_), -12);
            EXPECT_EQ(output_, &untouched_);
            EXPECT_EQ(fake::liveBlocks(), 0U);
            EXPECT_THAT(fake::log(), lines);
        }
        fake::reset();
        fake::answerUpcall(0, kAnswer);
        fake::failAllocation(nth);
        EXPECT_EQ(ask(question, &output_), 0);
        question.release(output_);
    }
}

TEST_F(Queries, RefuseANullInputBeforeANullOutput)
{
    for (const Question &question : kQuestions) {
        if (question.request == &kFourZeroBytes) {
            continue;
        }
        fake::reset();
        EXPECT_EQ(question.ask(nullptr, nullptr), -22) << question.name;
        EXPECT_EQ(question.ask(nullptr, &output_), -22) << question.name;
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: req is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                             "3 PROTOCOL: req is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
        EXPECT_THAT(fake::logFuncs(), ElementsAre(question.name, question.name));
        EXPECT_EQ(output_, &untouched_);
    }
}

TEST_F(Queries, RefuseANullOutput)
{
    for (const Question &question : kQuestions) {
        if (question.type == 13 || question.type == 15) {
            continue; // these two rely on their caller
        }
        fake::reset();
        EXPECT_EQ(ask(question, nullptr), -22) << question.name;
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: rsp is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
        EXPECT_THAT(fake::logFuncs(), ElementsAre(question.name));
        EXPECT_THAT(fake::calls(), IsEmpty());
    }
}

// A line of a question with another text in the place of its usual one.
Texts with(Texts lines, const std::string &usual, const std::string &text)
{
    for (std::string &line : lines) {
        line.replace(line.find(usual), usual.size(), text);
    }
    return lines;
}

TEST_F(Queries, ShowTextsWithoutAnEndCutToTheirWidth)
{
    for (const Question &question : kQuestions) {
        if (question.request != &kIp && question.request != &kZone) {
            continue;
        }
        const std::string usual = question.request == &kIp ? "10.1.2.3" : "sub-a";
        const std::string text(64, 't');
        const std::string sent = question.request->substr(0, question.request->size() - 64) + text;
        for (const int32_t result : {0, -5}) {
            SCOPED_TRACE(std::string(question.name) + " answered " + std::to_string(result));
            fake::reset();
            fake::answerUpcall(result, kAnswer);
            // What lies behind the text is no part of it.
            ASSERT_EQ(ask(question, &output_, sent + "beyond"), result);
            const Texts middle = result == 0
                                     ? callLine(question)
                                     : callLine(question) + Texts{"3 PROTOCOL: ret is failed, goto OUT!!!!!!!!!!!!"};
            EXPECT_THAT(fake::log(), with(question.begin, usual, text) + middle +
                                         with(result == 0 ? question.success : question.failure, usual, text));
            EXPECT_EQ(fake::upcalls()[0].request, sent);
            if (result == 0) {
                question.release(output_);
            }
        }
    }
}

TEST_F(Queries, ShowAnAnswersTextWithoutAnEnd)
{
    fake::answerUpcall(0, words({0, 1}) + std::string(4172 - 8, 'd'));
    ASSERT_EQ(ask(kQuestions[1], &output_), 0);
    FreeHdfsConf(output_);
    EXPECT_THAT(fake::log()[2], StartsWith("4 PROTOCOL: End GetHdfsConf by IP(10.1.2.3), response(result:0, fsid:1, "
                                           "dtreePath:ddddd"));
}

TEST_F(Queries, ForNeighboursSendTheirCountOfEntriesInThirtyTwoBits)
{
    struct Row {
        uint32_t count;
        size_t entries;
    };
    for (const Row &row : {Row{0, 0}, Row{1, 1}, Row{2, 2}, Row{40, 40}, Row{0x20000000, 0}, Row{0x20000001, 1}}) {
        fake::reset();
        fake::answerUpcall(0, kAnswer);
        const std::string record = neighbourRecord(row.count, row.entries);
        ASSERT_EQ(ask(kQuestions[2], &output_, record), 0) << row.count;
        FreeHdfsNeighborIpList(output_);
        EXPECT_EQ(fake::upcalls()[0].request, record) << row.count;
    }
}

TEST_F(Queries, ForNeighboursFailWhenTheirLengthWrapsToNothing)
{
    EXPECT_EQ(ask(kQuestions[2], &output_, neighbourRecord(0x1FFFFFFF, 0)), -12);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: Begin GetHdfsNeighborIpList by edsLsid(-5).",
                                         "3 PROTOCOL: (ret != EOK) is failed(-12), goto OUT!!!!!!!!!!!!",
                                         "4 PROTOCOL: End GetHdfsNeighborIpList by edsLsid(-5), ret: -12."));
    EXPECT_THAT(fake::upcalls(), IsEmpty());
    EXPECT_EQ(output_, &untouched_);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(Queries, IgnoreTheReleaseOfNothing)
{
    for (auto *release : {FreeHdfsConf, FreeHdfsNeighborIpList, FreeHdfsZoneIpList, FreeCurNodeIpList,
                          FreeCurNodeIfaceList, FreeIpListInfo}) {
        release(nullptr);
    }
    EXPECT_THAT(fake::log(), IsEmpty());
    void *nothing = nullptr;
    for (auto *release : {ReleaseContactedZoneHdfsConfigure, ReleaseSubnetAllIpList, ReleaseGetZoneFullDomain}) {
        release(&nothing);
        EXPECT_EQ(nothing, nullptr);
        EXPECT_THAT(fake::log(), IsEmpty());
        release(nullptr);
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: rsp is NULL, return !!!!!!!!!!!!"));
        fake::reset();
    }
}

} // namespace
