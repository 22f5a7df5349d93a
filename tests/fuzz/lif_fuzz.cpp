// Operations on the LIF port table, one after the other, against a plain model.
#include "input.h"

#include <array>
#include <fake_host.h>
#include <nas_lif_mgr_model.h>

namespace {

using fuzz::require;
using lif::Model;

constexpr int kMaxSteps = 200; // a longer input finds nothing that a shorter one does not

const std::vector<uint64_t> &ids()
{
    static const std::vector<uint64_t> all = lif::crowdedIds();
    return all;
}

uint64_t anyId(fuzz::Input &input)
{
    return ids()[input.byte() % ids().size()];
}

// One of a few addresses: the loopback, short ones, and three that are 45, 46 and 47 characters long.
std::string anyAddress(fuzz::Input &input)
{
    const uint8_t choice = input.byte() % 16;
    if (choice == 0) {
        return "127.0.0.1";
    }
    return choice < 13 ? "10.0.0." + std::to_string(choice) : std::string(size_t{32} + choice, 'f');
}

// Mostly short, sometimes at or past the longest.
std::string anyName(fuzz::Input &input)
{
    const uint8_t choice = input.byte();
    return choice < 250 ? "port" + std::to_string(choice) : std::string(size_t{4} + choice, 'n');
}

void add(fuzz::Input &input, Model &model)
{
    const uint64_t id = anyId(input);
    const std::string name = anyName(input);
    const std::string ip = anyAddress(input);
    const uint64_t time = input.byte();
    const bool memory = input.byte() % 8 != 7;
    fake::failAllocation(memory ? 0 : 1);
    require(nas_lifport_add_update(id, name.c_str(), ip.c_str(), time) == model.add(id, name, ip, time, memory));
    fake::failAllocation(0);
}

void remove(fuzz::Input &input, Model &model)
{
    const std::string ip = anyAddress(input);
    const uint64_t time = input.byte();
    nas_lifportid_del_update(ip.c_str(), time);
    model.remove(ip, time);
}

// The buffer takes the longest name: a name that does not fit keeps its bucket locked for good, which is meant.
void readName(fuzz::Input &input, const Model &model)
{
    const uint64_t id = anyId(input);
    std::array<char, 257> buffer{"untouched"};
    require(nas_get_lifport_name(id, buffer.data(), buffer.size()) == 0);
    require(buffer.data() == model.nameOf(id, "untouched"));
}

void keepOnly(fuzz::Input &input, Model &model)
{
    lif::Texts kept;
    std::vector<node_ip_entry> entries;
    for (uint8_t left = input.byte() % 20; left > 0; --left) {
        kept.push_back(anyAddress(input));
        node_ip_entry entry{};
        memcpy(entry.addr, kept.back().data(), kept.back().size());
        entries.push_back(entry);
    }
    const node_ip_entry none{};
    DeleteRedundancyLifInfoByIpList(entries.empty() ? &none : entries.data(), static_cast<uint32_t>(entries.size()));
    model.keepOnly(kept);
}

void find(fuzz::Input &input, const Model &model)
{
    const uint64_t id = anyId(input);
    require(nas_lifportid_hashfind(id) == model.find(id));
}

void step(fuzz::Input &input, Model &model)
{
    const uint8_t choice = input.byte() % 9;
    if (choice < 4) {
        add(input, model);
    } else if (choice < 6) {
        remove(input, model);
    } else if (choice == 6) {
        readName(input, model);
    } else if (choice == 7) {
        keepOnly(input, model);
    } else {
        find(input, model);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    fake::reset();
    fake::answerAlways("CheckLifPortSupportPerf", input.byte() % 2);
    fake::answerAlways("regLifportAdpter", input.byte() % 2);
    require(lif::startTable());
    Model model;
    for (int steps = 0; !input.empty() && steps < kMaxSteps; ++steps) {
        step(input, model);
        require(fake::locksHeld() == 0);
    }
    const lif::Texts expected = model.table();
    require(lif::table() == expected);
    require(model.sameSlots());
    require(fake::liveBlocks() == expected.size() + 1);
    return 0;
}
