// The data file: it is taken or refused in one line, and what is taken fits into the answers.
#include "input.h"

#include <storage/answers.h>
#include <storage/json_tree.h>

namespace {

using fuzz::require;
using storage::Request;

// A request of the question's length, zeros behind the text.
std::vector<std::byte> requestOf(size_t size, size_t offset, const std::string &text)
{
    std::vector<std::byte> request(size);
    std::memcpy(request.data() + offset, text.data(), text.size());
    return request;
}

storage::Payload answerTo(const storage::Knowledge &knowledge, uint32_t type, Request request)
{
    const storage::Answer answer = storage::answerQuestion(knowledge, type, request);
    require(answer.result == 0);
    require(answer.payload.size() >= sizeof(storage::ListHeader) && answer.payload.size() <= host::kMaxPayload);
    return answer.payload;
}

uint32_t wordAt(const storage::Payload &payload, size_t offset)
{
    uint32_t word = 0;
    std::memcpy(&word, payload.data() + offset, sizeof word);
    return word;
}

void askEverything(const storage::Knowledge &knowledge)
{
    for (const storage::Question &question : storage::questions()) {
        answerTo(knowledge, question.type, requestOf(question.requestSize, 0, ""));
    }
}

void askByKey(const storage::Data &data)
{
    const storage::Knowledge knowledge{data, {}};
    for (const auto &[address, configuration] : data.hdfs) {
        const auto payload = answerTo(knowledge, storage::kHdfsConfiguration, requestOf(64, 0, address));
        require(wordAt(payload, 0) == 0 && wordAt(payload, 4) == configuration.fsId);
        require(configuration.dtreePath == reinterpret_cast<const char *>(payload.data() + 8));
    }
    for (const auto &[address, tenantId] : data.tenants) {
        const auto payload = answerTo(knowledge, storage::kTenant, requestOf(64, 0, address));
        require(wordAt(payload, 0) == 0 && wordAt(payload, 4) == tenantId);
    }
    for (const auto &[key, addresses] : data.subnets) {
        auto request = requestOf(72, 8, key.subnet);
        std::memcpy(request.data(), &key.fsId, 4);
        std::memcpy(request.data() + 4, &key.tenantId, 4);
        const auto payload = answerTo(knowledge, storage::kSubnetAddresses, request);
        require(wordAt(payload, 0) == 0 && wordAt(payload, 4) == addresses.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text = fuzz::Input(data, size).rest();
    try {
        const storage::Data taken = storage::parseData(text);
        askEverything({taken, {}});
        askByKey(taken);
    } catch (const storage::DataError &error) {
        const std::string line = error.what();
        require(std::none_of(line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }));
        require(error.line() >= 1 && error.line() <= 1 + std::count(text.begin(), text.end(), '\n'));
    }
    return 0;
}
