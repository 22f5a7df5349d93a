// The answers of the storage-side service, as each question of the library takes them: what is handed out is the answer
// and zeros up to its least size, nothing outside a buffer is read, and the matching release leaves nothing behind.
#include "input.h"

#include <fake_host.h>
#include <memory>
#include <nasctrl/host/memory.h>
#include <nasctrl/ipc.h>

namespace {

using fuzz::require;

constexpr size_t kRow = 3072;

// Where a caller's record stands: in a block of exactly its size.
struct Record {
    explicit Record(const std::string &content) : bytes(std::make_unique<char[]>(content.size()))
    {
        std::copy(content.begin(), content.end(), bytes.get());
    }
    const zone_request *zone() const { return reinterpret_cast<const zone_request *>(bytes.get()); }

    std::unique_ptr<char[]> bytes;
};

struct Question {
    size_t requestSize;
    size_t minimum;
    int32_t (*ask)(const Record &request, void **rsp);
    void (*release)(void **rsp);
};

int32_t askNodeIps(const Record &, void **rsp)
{
    node_ip_list *list = nullptr;
    const int32_t ret = GetCurNodeIpList(&list);
    *rsp = list;
    return ret;
}

template <void (*Free)(void *)>
void freeAndForget(void **rsp)
{
    Free(*rsp);
    *rsp = nullptr;
}

void giveBack(void *block)
{
    nas_mem_comm_free(block, "answer_fuzz", 0);
}

// All but the node ids, which are not handed out as they come.
constexpr Question kQuestions[] = {
    {0, 8, askNodeIps, freeAndForget<FreeCurNodeIpList>},
    {64, 4172, [](const Record &r, void **rsp) { return GetHdfsConf(r.bytes.get(), rsp); },
     freeAndForget<FreeHdfsConf>},
    {72, 8, [](const Record &r, void **rsp) { return GetHdfsNeighborIpList(r.bytes.get(), rsp); },
     freeAndForget<FreeHdfsNeighborIpList>},
    {0, 12, [](const Record &, void **rsp) { return GetHdfsZoneIpList(rsp); }, freeAndForget<FreeHdfsZoneIpList>},
    {0, 8, [](const Record &, void **rsp) { return GetCurNodeIfaceList(rsp); }, freeAndForget<FreeCurNodeIfaceList>},
    {72, 12, [](const Record &r, void **rsp) { return GetHdfsGlobalZoneIpList(r.zone(), rsp); },
     freeAndForget<giveBack>},
    {64, 8, [](const Record &r, void **rsp) { return GetTenantIdByIp(r.bytes.get(), rsp); }, freeAndForget<giveBack>},
    {0, 16, [](const Record &, void **rsp) { return GetContactedZoneHdfsConfigure(rsp); },
     ReleaseContactedZoneHdfsConfigure},
    {72, 8, [](const Record &r, void **rsp) { return GetSubnetAllIpList(r.zone(), rsp); }, ReleaseSubnetAllIpList},
    {0, 258, [](const Record &, void **rsp) { return GetZoneFullDomain(rsp); }, ReleaseGetZoneFullDomain},
};

// What the service and the host do with the call.
struct Script {
    int32_t result;
    bool noResponse;
    uint64_t failedAllocation;

    explicit Script(uint8_t bits)
        : result((bits & 3) == 1 ? -110 : -static_cast<int32_t>(bits & 3)), noResponse((bits & 4) != 0),
          failedAllocation(bits >> 3)
    {
    }
    bool plain() const { return result == 0 && !noResponse && failedAllocation == 0; }
    // A call that timed out leaves no response: it is made again without a look at what it left.
    void play(const std::string &answer) const
    {
        if (noResponse || result == -110) {
            fake::answerUpcallWithoutResponse(result);
        } else {
            fake::answerUpcall(result, answer);
        }
        fake::failAllocation(failedAllocation);
    }
};

std::string requestFor(const Question &question, fuzz::Input &input)
{
    std::string request = question.requestSize != 0 ? input.bytes(input.byte() % (question.requestSize + 1)) : "";
    request.resize(question.requestSize, question.requestSize == 64 ? 'x' : '\0');
    if (question.ask == kQuestions[2].ask) {
        const uint32_t entries = input.byte() % 4;
        std::memcpy(&request[68], &entries, sizeof entries);
        request.resize(72 + 72 * size_t{entries}, 'e');
    }
    return request;
}

void ask(const Question &question, fuzz::Input &input)
{
    const Script script(input.byte());
    const Record request(requestFor(question, input));
    const std::string answer = input.rest();
    script.play(answer);
    void *copy = nullptr;
    const int32_t ret = question.ask(request, &copy);
    require((ret == 0) == (copy != nullptr));
    require(!script.plain() || (ret == 0) == !answer.empty());
    if (copy != nullptr) {
        std::string expected = answer;
        expected.resize(std::max(answer.size(), question.minimum), '\0');
        require(std::memcmp(copy, expected.data(), expected.size()) == 0);
        question.release(&copy);
        require(copy == nullptr);
    }
}

// The number of rows is trusted, and that each ends, so that these inputs announce what they hold and end the last.
void makeRowsTrue(std::string &answer)
{
    if (answer.size() < 8) {
        return;
    }
    uint32_t rows = 0;
    std::memcpy(&rows, &answer[4], sizeof rows);
    rows = std::min(rows, static_cast<uint32_t>((answer.size() - 8) / kRow));
    std::memcpy(&answer[4], &rows, sizeof rows);
    if (rows != 0) {
        answer.back() = '\0';
    }
}

void askNodeIds(fuzz::Input &input)
{
    const Script script(input.byte());
    std::string answer = input.rest();
    makeRowsTrue(answer);
    script.play(answer);
    char **ids = nullptr;
    uint32_t count = 0;
    const int32_t ret = GetHdfsGlobalZoneNodeId(&ids, &count);
    require(ret == 0 || count == 0);
    require(!script.plain() || answer.size() >= 8 || ret == -12);
    if (ret == 0) {
        for (uint32_t i = 0; i < count; ++i) {
            require(std::strcmp(ids[i], &answer[8 + i * kRow]) == 0);
        }
        ReleaseHdfsGlobalZoneNodeId(ids, static_cast<int32_t>(count));
    }
}

} // namespace

// The first byte chooses the question, the next what goes wrong; then comes the request's part and then the answer.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    fake::reset();
    const size_t choice = input.byte() % (std::size(kQuestions) + 1);
    if (choice < std::size(kQuestions)) {
        ask(kQuestions[choice], input);
    } else {
        askNodeIds(input);
    }
    require(fake::liveBlocks() == 0);
    return 0;
}
