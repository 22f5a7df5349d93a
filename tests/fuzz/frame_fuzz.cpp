// The frame parser: a stream that arrives in pieces gives the frames that the stream holds, whatever the pieces.
#include "input.h"

#include <message/frame.h>
#include <vector>

namespace {

using fuzz::require;

struct Frames {
    std::vector<std::string> whole;
    host::FrameState end = host::FrameState::Incomplete;

    bool operator==(const Frames &) const = default;
};

// Read off the whole stream at once.
Frames expected(const std::string &stream)
{
    Frames frames;
    size_t at = 0;
    while (stream.size() - at >= 4) {
        uint32_t length = 0;
        std::memcpy(&length, stream.data() + at, 4);
        if (length < 20 || length > 20 + host::kMaxPayload) {
            frames.end = host::FrameState::BadLength;
            break;
        }
        if (stream.size() - at < 4 + size_t{length}) {
            break;
        }
        frames.whole.push_back(stream.substr(at, 4 + size_t{length}));
        at += 4 + size_t{length};
    }
    return frames;
}

void takeFrames(host::ReceiveBuffer &buffer, Frames &frames)
{
    host::FrameHeader header{};
    while ((frames.end = host::peekFrame(buffer.arrived(), header)) == host::FrameState::Complete) {
        const size_t size = host::frameSize(header);
        require(size <= buffer.arrived().size());
        require(std::memcmp(&header, buffer.arrived().data(), sizeof header) == 0);
        frames.whole.emplace_back(reinterpret_cast<const char *>(buffer.arrived().data()), size);
        buffer.consume(size);
    }
}

Frames arrivedInPieces(const std::string &stream, size_t piece)
{
    Frames frames;
    host::ReceiveBuffer buffer;
    size_t at = 0;
    while (at < stream.size() && frames.end != host::FrameState::BadLength) {
        const auto room = buffer.room();
        require(!room.empty());
        const size_t count = std::min({piece, room.size(), stream.size() - at});
        std::memcpy(room.data(), stream.data() + at, count);
        buffer.commit(count);
        at += count;
        takeFrames(buffer, frames);
    }
    return frames;
}

} // namespace

// The first byte says how large the pieces are, the rest is the stream.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    const size_t piece = 1 + size_t{input.byte()} * 16;
    const std::string stream = input.rest();
    require(arrivedInPieces(stream, piece) == expected(stream));
    return 0;
}
