/*
 * nasctl msg: any frame to any module, and its answer byte by byte.
 */
#include "commands/commands.h"
#include "failure.h"
#include "message_client.h"
#include "parse.h"
#include "view.h"
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

namespace ctl {

// Each byte as two digits with a separator of its own, and as much again for blank space.
constexpr size_t kMaxInput = 6 * kMaxPayload;

static std::string standardInput()
{
    std::array<char, 1U << 16> part;
    std::string text;
    size_t got = 0;
    while ((got = std::fread(part.data(), 1, part.size(), stdin)) > 0) {
        text.append(part.data(), got);
        if (text.size() > kMaxInput) {
            throw UsageFailure("HEX: standard input has more than " + std::to_string(kMaxInput) + " characters");
        }
    }
    if (std::ferror(stdin) != 0) {
        throw Failure(std::string("cannot read standard input (") + std::strerror(errno) + ")");
    }
    return text;
}

static std::string answerText(const Session &session, const MessageAnswer &answer)
{
    const std::string payload = toHex(answer.payload);
    if (session.json) {
        const nlohmann::ordered_json shape = {
            {"direction", answer.direction}, {"result", answer.result}, {"payload", payload}};
        return shape.dump() + "\n";
    }
    Table fields({{}, {}});
    fields.add({{"direction"}, {answer.direction == kReply ? "1 (reply)" : "2 (no reply)"}});
    fields.add({{"result"}, {std::to_string(answer.result)}});
    fields.add({{"payload"}, {payload.empty() ? "-" : payload}});
    return fields.render(session.colour);
}

int sendMessage(const Session &session, const std::string &module, const std::string &opcode, const std::string &hex)
{
    const auto moduleId = static_cast<uint32_t>(parseNumber("--module", module, 0, UINT32_MAX));
    const auto opcodeId = static_cast<uint32_t>(parseNumber("--opcode", opcode, 0, UINT32_MAX));
    const std::string payload = parseHex(hex == "-" ? standardInput() : hex);
    if (payload.size() > kMaxPayload) {
        throw UsageFailure("HEX: " + std::to_string(payload.size()) + " bytes; a message carries at most " +
                           std::to_string(kMaxPayload));
    }
    const MessageAnswer answer = MessageClient(session).call(moduleId, opcodeId, payload);
    print(answerText(session, answer));
    if (answer.result != 0) {
        reportError(session.command, "the node answered with " + resultText(answer.result) + "; its log tells more");
        return kFailed;
    }
    return kDone;
}

} // namespace ctl
