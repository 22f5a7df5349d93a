#include "message/frame.h"

#include <algorithm>
#include <cstring>

namespace host {

namespace {

constexpr size_t kFirstCapacity = 4096;
constexpr size_t kKeptCapacity = 65536;
constexpr size_t kLargestFrame = sizeof(FrameHeader::length) + kMaxFrameLength;

} // namespace

FrameState peekFrame(std::span<const std::byte> arrived, FrameHeader &header)
{
    if (arrived.size() < sizeof header.length) {
        return FrameState::Incomplete;
    }
    memcpy(&header.length, arrived.data(), sizeof header.length);
    if (header.length < kMinFrameLength || header.length > kMaxFrameLength) {
        return FrameState::BadLength;
    }
    if (arrived.size() < frameSize(header)) {
        return FrameState::Incomplete;
    }
    memcpy(&header, arrived.data(), sizeof header);
    return FrameState::Complete;
}

std::span<std::byte> ReceiveBuffer::room()
{
    if (end_ == capacity_) {
        const size_t used = end_ - begin_;
        resize(used < capacity_ ? capacity_ : std::clamp(capacity_ * 2, kFirstCapacity, kLargestFrame));
    }
    return {bytes_.get() + end_, capacity_ - end_};
}

void ReceiveBuffer::consume(size_t count)
{
    begin_ += count;
    if (begin_ != end_) {
        return;
    }
    begin_ = end_ = 0;
    if (capacity_ > kKeptCapacity) {
        bytes_.reset();
        capacity_ = 0;
    }
}

// Moves what has arrived to the front of a buffer of this capacity.
void ReceiveBuffer::resize(size_t capacity)
{
    const size_t used = end_ - begin_;
    if (capacity == capacity_) {
        memmove(bytes_.get(), bytes_.get() + begin_, used);
    } else {
        auto larger = std::make_unique_for_overwrite<std::byte[]>(capacity);
        std::copy_n(bytes_.get() + begin_, used, larger.get());
        bytes_ = std::move(larger);
        capacity_ = capacity;
    }
    begin_ = 0;
    end_ = used;
}

} // namespace host
