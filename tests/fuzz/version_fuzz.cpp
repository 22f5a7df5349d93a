// Compatible-version texts, parsed by the library and by a model that shares nothing with it: results, arrays and log
// lines must be equal. The input's first byte chooses how full the array is before, the rest is the text.
#include <fake_host.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr size_t kLoggedMax = 4095; // longer lines are cut by the fake host
constexpr int32_t kCountsBefore[] = {0, 0, 0, 0, 1, 250, 256, -1};

// The number at the beginning of a text: blanks, a sign, digits; 0 without digits, the nearest limit beyond 64 bits.
int64_t numberIn(std::string_view text)
{
    const size_t start = text.find_first_not_of(" \t\n\v\f\r");
    if (start == std::string_view::npos) {
        return 0;
    }
    text.remove_prefix(start);
    const bool negative = text[0] == '-';
    if (negative || text[0] == '+') {
        text.remove_prefix(1);
    }
    const __int128 limit = __int128{std::numeric_limits<int64_t>::max()} + (negative ? 1 : 0);
    __int128 number = 0;
    for (const char digit : text.substr(0, text.find_first_not_of("0123456789"))) {
        number = number * 10 + (digit - '0');
        if (number > limit) {
            number = limit;
        }
    }
    return static_cast<int64_t>(negative ? -number : number);
}

class Model {
public:
    Model(std::string_view text, int32_t count) : text_(text), count_(count) {}

    // nullopt: refused because a body is too long, with a code that only the bounded copy knows.
    std::optional<uint32_t> parse()
    {
        size_t at = 0;
        bool found = false;
        while (at < text_.size()) {
            const size_t open = text_.find('[', at);
            if (open == std::string_view::npos) {
                found ? log("wrong compa ver(" + whole() + ") format.") : log("no verlist found in brackets.");
                return 0;
            }
            const size_t close = text_.find(']', at);
            if (close == std::string_view::npos || close < open) {
                log("wrong compa ver(" + whole() + ") format.");
                return 0xFFFFFFFFU;
            }
            found = true;
            const auto body = text_.substr(open + 1, close - open - 1);
            if (body.size() > 256) {
                return std::nullopt;
            }
            if (!addBody(body)) {
                log("pick vers in one Bracket err(-1), check(" + whole() + ").");
                return 0xFFFFFFFFU;
            }
            at = close + 1;
        }
        return 0;
    }

    const std::vector<uint32_t> &added() const { return added_; }
    const std::vector<std::string> &logged() const { return logged_; }
    std::string whole() const { return std::string(text_); }

private:
    void log(const std::string &text)
    {
        logged_.push_back("class 3 " + ("PROTOCOL: NASCTRL_DPC: " + text).substr(0, kLoggedMax));
    }

    bool add(uint32_t version)
    {
        if (count_ < 0 || count_ > 255) {
            log("parse out more version than MAX allowed(256), check!!.");
            return false;
        }
        added_.push_back(version);
        ++count_;
        return true;
    }

    bool addBody(std::string_view body)
    {
        if (body.empty()) {
            log("empty in Bracket.");
            return true;
        }
        const size_t dash = body.find('-');
        if (dash == std::string_view::npos) {
            return add(static_cast<uint32_t>(numberIn(body)));
        }
        const auto first = static_cast<int32_t>(numberIn(body.substr(0, dash)));
        const auto second = static_cast<int32_t>(numberIn(body.substr(dash + 1)));
        const int64_t low = first < second ? first : second;
        const int64_t size = std::abs(int64_t{first} - second) + 1;
        for (int64_t i = 0; i < size; ++i) {
            if (!add(static_cast<uint32_t>(low + i))) {
                log("add ver(" + std::to_string(low + i) + ") err(-1).");
                return false;
            }
        }
        return true;
    }

    std::string_view text_;
    int32_t count_;
    std::vector<uint32_t> added_;
    std::vector<std::string> logged_;
};

void require(bool holds, const char *what, const std::string &text)
{
    if (!holds) {
        std::fprintf(stderr, "version_fuzz: %s differs for: %s\n", what, text.c_str());
        std::abort();
    }
}

// The last two lines of a refused long body, whose code is the bounded copy's.
bool isRefusedBody(std::vector<std::string> lines, uint32_t result, const std::string &text, size_t before)
{
    const std::string code = std::to_string(static_cast<int32_t>(result));
    const std::string copy = "PROTOCOL: NASCTRL_DPC: sprintf_s err(" + code + ").";
    const std::string pick = "PROTOCOL: NASCTRL_DPC: pick vers in one Bracket err(" + code + "), check(" + text + ").";
    return result != 0 && lines.size() == before + 2 && lines[before] == "class 3 " + copy &&
           lines[before + 1] == "class 3 " + pick.substr(0, kLoggedMax);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    fake::reset();
    // Exactly as long as the text and its NUL, so that a sanitizer sees a step outside.
    const auto *bytes = reinterpret_cast<const char *>(data) + 1;
    const std::string text(bytes, strnlen(bytes, size - 1));
    version_array array = {};
    array.count = kCountsBefore[data[0] % 8];
    Model model(text, array.count);
    const auto expected = model.parse();

    const int32_t before = array.count;
    const uint32_t result = ParseCompaVersListFromStr(text.c_str(), &array);

    const auto lines = fake::log();
    if (expected) {
        require(result == *expected, "the result", text);
        require(lines == model.logged(), "the log", text);
    } else {
        require(isRefusedBody(lines, result, text, model.logged().size()), "the refusal of a long body", text);
    }
    const auto &added = model.added();
    require(array.count == before + static_cast<int32_t>(added.size()), "the count", text);
    for (size_t i = 0; i < added.size(); ++i) {
        require(array.vers[static_cast<size_t>(before) + i] == added[i], "a version", text);
    }
    return 0;
}
