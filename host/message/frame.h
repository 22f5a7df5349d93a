/*
 * The frames of both sockets (docs/messages.md), and the buffer in which they are put together from what arrives.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace host {

constexpr uint32_t kRequest = 0;
constexpr uint32_t kReply = 1;
constexpr uint32_t kNoReply = 2;

struct FrameHeader {
    uint32_t length; // of what follows this word
    uint32_t module;
    uint32_t opcode;
    uint32_t sequence;
    uint32_t direction;
    int32_t result;
};
static_assert(sizeof(FrameHeader) == 24 && offsetof(FrameHeader, sequence) == 12 &&
              offsetof(FrameHeader, result) == 20);

constexpr uint32_t kMaxPayload = 1048576;
constexpr uint32_t kMinFrameLength = sizeof(FrameHeader) - sizeof(FrameHeader::length);
constexpr uint32_t kMaxFrameLength = kMinFrameLength + kMaxPayload;

enum class FrameState { Incomplete, BadLength, Complete };

// Looks at the first frame of what has arrived. The length is stored as soon as it is there, the rest with Complete.
FrameState peekFrame(std::span<const std::byte> arrived, FrameHeader &header);

constexpr size_t frameSize(const FrameHeader &header)
{
    return sizeof header.length + header.length;
}

/*
 * Bytes that arrived and are not used up yet. It grows as they arrive, never by what a sender announces, and gives the
 * room of a large frame back when that has been used up. For one thread at a time.
 */
class ReceiveBuffer {
public:
    // Where the next bytes go; never empty as long as frames are taken out when they are complete.
    std::span<std::byte> room();
    void commit(size_t count) { end_ += count; }

    std::span<std::byte> arrived() { return {bytes_.get() + begin_, end_ - begin_}; }
    void consume(size_t count);

private:
    void resize(size_t capacity);

    std::unique_ptr<std::byte[]> bytes_;
    size_t capacity_ = 0;
    size_t begin_ = 0;
    size_t end_ = 0;
};

} // namespace host
