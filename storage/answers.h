/*
 * The questions, one row each, and their answers. Knows nothing of sockets; no state.
 */
#pragma once

#include "data.h"
#include "records.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace storage {

// What answers are made of.
struct Knowledge {
    const Data &data;
    std::span<const Interface> machine; // the machine's own interfaces
};

using Request = std::span<const std::byte>;
using Payload = std::vector<std::byte>;

struct Question {
    uint32_t type;
    const char *name;
    size_t requestSize; // of a request, or of its header
    // The request has that size at least. Nothing is left out of the payload that a field's width has room for.
    Payload (*build)(const Knowledge &knowledge, Request request);
};

std::span<const Question> questions();
// Null when there is no such type.
const Question *findQuestion(uint32_t type);

struct Answer {
    int32_t result; // of the frame: 0, or a negative errno
    Payload payload;
};

// -EOPNOTSUPP for a type that is not in the table, -EINVAL for a request of another length.
Answer answerQuestion(const Knowledge &knowledge, uint32_t type, Request request);

} // namespace storage
