/*
 * JSON with the line of every value, so that an error about a value can name its line.
 */
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace storage {

// What is wrong and where; what() is one line without the file's name.
class DataError : public std::runtime_error {
public:
    // why may quote the file: its control characters are shown as \x0a.
    DataError(unsigned line, const std::string &why);
    unsigned line() const { return line_; }

private:
    unsigned line_;
};

enum class JsonKind { null, boolean, whole, fraction, text, array, object };

struct JsonNode {
    JsonKind kind = JsonKind::null;
    unsigned line = 0;     // where the value stands; of an array or object, where it begins
    std::string name;      // of a member of an object
    unsigned nameLine = 0; // where the name stands
    bool truth = false;
    bool negative = false; // of a whole number: value is then its distance from 0
    uint64_t value = 0;
    std::string text;
    std::vector<JsonNode> children; // elements, or members in their order, two of a name included
};

constexpr size_t kMaxJsonDepth = 16;

// Throws DataError for what is not JSON, or nested deeper than kMaxJsonDepth.
JsonNode parseJson(const std::string &text);

} // namespace storage
