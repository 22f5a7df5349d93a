// The configuration of the shard view: what comes of a list is what a plain reading of it gives, nothing beside the
// tables is written, and every look-up over the result holds.
#include "input.h"

#include <fake_host.h>
#include <memory>
#include <nasctrl/shard_view.h>
#include <vector>

namespace {

using fuzz::require;

constexpr size_t kShards = 4096;
constexpr size_t kAddress = 256;
constexpr const char *kConf = "/etc/view.conf";

struct Expected {
    std::vector<shard_entry> entries = std::vector<shard_entry>(kShards);
    std::vector<std::string> addresses = std::vector<std::string>(kShards);
    uint32_t count = 0;
    size_t badPairs = 0;
};

// A text without NULs and without an address that is too long, which ends the process on purpose.
std::string boundedText(const std::string &bytes)
{
    std::string text;
    size_t run = 0;
    for (const char c : bytes.substr(0, bytes.find('\0'))) {
        run = c == ',' ? 0 : run + 1;
        text += run < kAddress ? c : ',';
        run %= kAddress;
    }
    return text;
}

void readPair(const std::string &pair, size_t index, Expected &expected)
{
    const size_t colon = pair.find(':');
    if (colon == std::string::npos || index >= kShards) {
        ++expected.badPairs;
        return;
    }
    expected.entries[index].shardId = static_cast<uint32_t>(index);
    expected.entries[index].lsId = static_cast<uint32_t>(std::strtoll(pair.substr(0, colon).c_str(), nullptr, 10));
    expected.addresses[index] = pair.substr(colon + 1);
    expected.count = static_cast<uint32_t>(index) + 1;
}

Expected readList(const std::string &list)
{
    Expected expected;
    size_t index = 0;
    size_t start = 0;
    for (size_t comma = 0; comma != std::string::npos; ++index, start = comma + 1) {
        comma = list.find(',', start);
        readPair(list.substr(start, comma == std::string::npos ? comma : comma - start), index, expected);
    }
    return expected;
}

void clearView()
{
    std::memset(&g_shardviewTbl, 0, sizeof g_shardviewTbl);
    std::memset(shard_addr_list, 0, sizeof shard_addr_list);
    std::memset(shardViewStatus, 0, sizeof shardViewStatus);
    std::memset(&shardViewList, 0, sizeof shardViewList);
}

void requireTable(const Expected &expected)
{
    require(g_shardviewTbl.number_of_shards == expected.count);
    require(std::memcmp(g_shardviewTbl.entries, expected.entries.data(), sizeof g_shardviewTbl.entries) == 0);
    for (size_t i = 0; i < kShards; ++i) {
        require(shard_addr_list[i] == expected.addresses[i]);
        require(shardViewStatus[i].status == 0 && shardViewStatus[i].takeoverLs == 0);
    }
}

void lookUp(const Expected &expected, uint32_t fspId)
{
    const uint32_t shardId = FspGetShardIdByFsp(fspId);
    require(shardId == (expected.count == 0 ? 0 : fspId % expected.count));
    const uint32_t next = FspGetNextLsIdByFsp(fspId);
    const auto entry = std::make_unique<shard_entry>();
    const auto address = std::make_unique<char[]>(kAddress);
    const uint32_t ret = stub_getShardingInfoById(fspId, entry.get(), nullptr, address.get(), kAddress);
    require(ret == (expected.count == 0 ? 1 : 0));
    if (ret != 0) {
        require(next == NAS_INVALID);
        return;
    }
    require(next == expected.entries[(shardId + 1) % expected.count].lsId);
    require(entry->shardId == fspId && entry->lsId == expected.entries[shardId].lsId);
    require(address.get() == expected.addresses[shardId]);
    const uint32_t first = FspGetShardIdByLsId(entry->lsId);
    require(first <= shardId && expected.entries[first].lsId == entry->lsId);
}

} // namespace

// A line for the partition number, and the list.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text = fuzz::Input(data, size).rest();
    const size_t line = std::min(text.find('\n'), text.size());
    const std::string partitions = text.substr(0, line).c_str();
    const std::string list = boundedText(text.substr(std::min(line + 1, text.size())));

    fake::reset();
    clearView();
    fake::setConfig(kConf, "GLOBAL", "ebsserver_ip_list", list);
    fake::setConfig(kConf, "GLOBAL", "partition_number", partitions);
    const bool fits = list.size() < 51200;
    require(stub_initShardView(kConf) == (fits ? 0 : 1));
    const Expected expected = fits ? readList(list) : Expected{};
    requireTable(expected);
    if (fits) {
        require(fake::log().size() == expected.badPairs + 1);
        const long number = partitions.size() < 32 ? std::strtol(partitions.c_str(), nullptr, 10) : 1;
        require(stub_GetPartionNumber() == static_cast<uint32_t>(number));
        for (const uint32_t fspId : {0U, 1U, 4095U, 65536U, 0xFFFFFFFFU}) {
            lookUp(expected, fspId);
        }
    }
    require(fake::locksHeld() == 0);
    require(fake::liveBlocks() == 0);
    return 0;
}
