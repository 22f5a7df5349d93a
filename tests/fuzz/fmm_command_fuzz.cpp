// The values of the nas_fmm commands: whatever an operator types, a command moves exactly what a strict reading of the
// value names, or nothing. The first byte chooses the command, the rest is the value.
#include "input.h"

#include <cctype>
#include <events.h>
#include <fake_host.h>
#include <nasctrl/fmm.h>
#include <nasctrl/shard_view.h>
#include <optional>
#include <vector>

namespace {

using fuzz::require;

constexpr uint32_t kFound = 4321; // what every look-up of the shard view answers

// What the command asked of the shard view, in order.
struct Ask {
    char what;
    uint32_t first, second;
    int32_t third;
    bool operator==(const Ask &) const = default;
};
std::vector<Ask> g_asked;

uint32_t ask(char what, uint32_t first, uint32_t second, int32_t third, uint32_t answer)
{
    g_asked.push_back({what, first, second, third});
    return answer;
}

} // namespace

uint32_t FspGetNextLsIdByFsp(uint32_t fspId)
{
    return ask('f', fspId, 0, 0, kFound);
}
uint32_t FspGetNextLsIdByLs(uint32_t lsId)
{
    return ask('l', lsId, 0, 0, kFound);
}
uint32_t FspGetSrcLsByLsId(uint32_t lsId)
{
    return ask('s', lsId, 0, 0, kFound);
}
uint32_t FspModifyShardView(uint32_t fspId, uint32_t dst)
{
    return ask('m', fspId, dst, 0, 0);
}
uint32_t FspMigrationNode(uint32_t src, uint32_t dst, int32_t failback)
{
    return ask('n', src, dst, failback, 0);
}

namespace {

struct Number {
    uint32_t value = 0;
    size_t end = 0; // of its digits in the text
};

int digitOf(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    if (std::isdigit(byte) != 0) {
        return c - '0';
    }
    return std::isalpha(byte) != 0 ? std::tolower(byte) - 'a' + 10 : 99;
}

// Blanks, a sign, a prefix that gives the base, digits; nothing when there are no digits. Beyond 64 bits all bits are
// set.
std::optional<Number> readNumber(const std::string &text)
{
    size_t at = 0;
    while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])) != 0) {
        ++at;
    }
    const bool negative = at < text.size() && text[at] == '-';
    at += at < text.size() && (text[at] == '-' || text[at] == '+') ? 1 : 0;
    int base = 10;
    const auto charAt = [&](size_t index) { return index < text.size() ? text[index] : '\0'; };
    if (charAt(at) == '0') {
        const bool hexadecimal = (charAt(at + 1) | 0x20) == 'x' && digitOf(charAt(at + 2)) < 16;
        base = hexadecimal ? 16 : 8;
        at += hexadecimal ? 2 : 0;
    }
    const size_t first = at;
    unsigned __int128 value = 0;
    bool tooLarge = false;
    for (; at < text.size() && digitOf(text[at]) < base; ++at) {
        value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digitOf(text[at]));
        tooLarge = tooLarge || value > UINT64_MAX;
        value = tooLarge ? 0 : value;
    }
    if (at == first) {
        return std::nullopt;
    }
    const auto low = static_cast<uint64_t>(value);
    return Number{static_cast<uint32_t>(tooLarge ? UINT64_MAX : negative ? 0 - low : low), at};
}

void checkNodeEvent(const std::string &text, int32_t result)
{
    const std::optional<Number> number = readNumber(text);
    const auto notices = fake::notices();
    require(result == 0 && g_asked.empty() && notices.size() == 1);
    require(notices[0].module == NOTIFY_MODULE_FMM && notices[0].event == NAS_FMM_EVENT_NODE_FAULT);
    std::string argument(72, '\0');
    const uint32_t word = number ? number->value : 0;
    std::memcpy(argument.data(), &word, sizeof word);
    require(notices[0].argument == argument);
}

void checkShardAction(const std::string &command, const std::string &text, int32_t result)
{
    const std::optional<Number> number = readNumber(text);
    require(fake::notices().empty());
    if (!number || number->end != text.size()) {
        require(result == 1 && g_asked.empty());
        return;
    }
    const uint32_t id = number->value;
    std::vector<Ask> expected;
    if (command == "modify_fsp_shardview") {
        expected = {{'f', id, 0, 0}, {'m', id, kFound, 0}};
    } else if (command == "set_node_fault") {
        expected = {{'l', id, 0, 0}, {'n', id, kFound, 0}};
    } else {
        expected = {{'s', id, 0, 0}, {'n', kFound, id, 1}};
    }
    require(result == 0 && g_asked == expected);
}

const std::vector<pum_cmd_t> &valueCommands()
{
    static const auto commands = [] {
        nsa_fmm_cmd_init();
        auto found = fake::registeredCommands();
        std::erase_if(found, [](const pum_cmd_t &command) { return !std::string(command.usage).ends_with("-v "); });
        return found;
    }();
    return commands;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    const pum_cmd_t &command = valueCommands().at(input.byte() % valueCommands().size());
    std::string buffer = input.rest();
    const std::string text = buffer.c_str(); // as the command sees it
    fake::reset();
    g_asked.clear();
    const int32_t result = command.handler(buffer.data(), static_cast<uint32_t>(buffer.size() + 1));
    require(buffer.c_str() == text);
    if (std::string(command.command).starts_with("node_")) {
        checkNodeEvent(text, result);
    } else {
        checkShardAction(command.command, text, result);
    }
    require(fake::liveBlocks() == 0);
    return 0;
}
