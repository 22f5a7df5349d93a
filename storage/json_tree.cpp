#include "json_tree.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <nlohmann/json.hpp>

namespace storage {

namespace {

using nlohmann::json;

constexpr size_t kShownReason = 200;
constexpr unsigned char kDelete = 0x7f;

std::string inOneLine(const std::string &text)
{
    constexpr const char *kDigits = "0123456789abcdef";
    std::string line;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < ' ' || byte == kDelete) {
            line += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        } else {
            line += character;
        }
    }
    return line;
}

// Hands the parser its text and tells how far it has read.
class TrackedIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    TrackedIterator(const char *at, const char **reached) : at_(at), reached_(reached) {}
    reference operator*() const { return *at_; }
    TrackedIterator &operator++()
    {
        *reached_ = ++at_;
        return *this;
    }
    TrackedIterator operator++(int)
    {
        const TrackedIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const TrackedIterator &other) const { return at_ == other.at_; }

private:
    const char *at_;
    const char **reached_;
};

class TreeBuilder : public nlohmann::json_sax<json> {
public:
    explicit TreeBuilder(const std::string &text) : counted_(text.data()), reached_(text.data()) {}

    const char **reached() { return &reached_; }
    JsonNode takeRoot() { return std::move(root_); }

    bool null() override { return add(JsonKind::null) != nullptr; }
    bool boolean(bool value) override
    {
        add(JsonKind::boolean)->truth = value;
        return true;
    }
    bool number_integer(number_integer_t value) override
    {
        JsonNode *node = add(JsonKind::whole);
        node->negative = value < 0;
        node->value = node->negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
        return true;
    }
    bool number_unsigned(number_unsigned_t value) override
    {
        add(JsonKind::whole)->value = value;
        return true;
    }
    bool number_float(number_float_t, const string_t &) override { return add(JsonKind::fraction) != nullptr; }
    bool string(string_t &value) override
    {
        add(JsonKind::text)->text = std::move(value);
        return true;
    }
    bool binary(binary_t &) override { return false; } // no text has one
    bool start_object(std::size_t) override { return open(JsonKind::object); }
    bool start_array(std::size_t) override { return open(JsonKind::array); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t &name) override
    {
        name_ = std::move(name);
        nameLine_ = line();
        return true;
    }
    bool parse_error(std::size_t, const std::string &, const nlohmann::detail::exception &error) override
    {
        throw DataError(line(), "this is no JSON: " + reasonOf(error.what()));
    }

private:
    // The line of the last character of what was read last. A number is known to be over only when the character
    // behind it has been read, which may be the end of the line: it does not count itself.
    unsigned line()
    {
        const char *last = reached_ > counted_ ? reached_ - 1 : counted_;
        line_ += static_cast<unsigned>(std::count(counted_, last, '\n'));
        counted_ = last;
        return line_;
    }

    // The parser's own words behind "at line 3, column 5: ".
    static std::string reasonOf(const std::string &words)
    {
        const size_t place = words.find("column ");
        const size_t colon = place == std::string::npos ? place : words.find(": ", place);
        std::string reason = colon == std::string::npos ? words : words.substr(colon + 2);
        if (reason.size() > kShownReason) {
            reason = reason.substr(0, kShownReason) + "...";
        }
        return reason;
    }

    JsonNode *add(JsonKind kind)
    {
        JsonNode node;
        node.kind = kind;
        node.line = line();
        node.name = std::move(name_);
        node.nameLine = nameLine_;
        name_.clear();
        if (open_.empty()) {
            root_ = std::move(node);
            return &root_;
        }
        open_.back()->children.push_back(std::move(node));
        return &open_.back()->children.back();
    }

    bool open(JsonKind kind)
    {
        if (open_.size() == kMaxJsonDepth) {
            throw DataError(line(), "this is nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
        }
        open_.push_back(add(kind));
        return true;
    }

    bool close()
    {
        open_.pop_back();
        return true;
    }

    JsonNode root_;
    std::vector<JsonNode *> open_; // from the root to where values go; none of them moves while it is open
    std::string name_;
    unsigned nameLine_ = 0;
    const char *counted_; // lines up to here are in line_
    const char *reached_;
    unsigned line_ = 1;
};

} // namespace

DataError::DataError(unsigned line, const std::string &why)
    : std::runtime_error("line " + std::to_string(line) + ": " + inOneLine(why)), line_(line)
{
}

JsonNode parseJson(const std::string &text)
{
    TreeBuilder builder(text);
    const char *end = text.data() + text.size();
    json::sax_parse(TrackedIterator(text.data(), builder.reached()), TrackedIterator(end, builder.reached()), &builder);
    return builder.takeRoot();
}

} // namespace storage
