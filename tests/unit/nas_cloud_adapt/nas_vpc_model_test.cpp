// The VPC file through save and load for many random tables, against a model that knows the rules only.
#include "vpc_file.h"
#include "vpc_fixture.h"

#include <algorithm>
#include <random>

namespace {

struct Record {
    std::string id;
    std::string ip;
    int16_t mask;

    bool operator==(const Record &) const = default;
};

using Records = std::vector<Record>;

// What the file should be after a save: the new text over the beginning of the old one.
std::string savedOver(const std::string &old, const Records &records)
{
    std::string text;
    for (const Record &record : records) {
        text += record.id + ";" + record.ip + "/" + std::to_string(record.mask) + "\n\n";
    }
    text.resize(std::min<size_t>(text.size(), 15599));
    return text.size() < old.size() ? text + old.substr(text.size()) : text;
}

// The text behind the blanks that open it, cut off at the next of the same, and what follows.
std::pair<std::string, std::string> cutAt(char separator, const std::string &text)
{
    const size_t begin = std::min(text.find_first_not_of(separator), text.size());
    const size_t end = std::min(text.find(separator, begin), text.size());
    return {text.substr(begin, end - begin), text.substr(std::min(end + 1, text.size()))};
}

void addTo(Records &records, const std::string &id, const std::string &network)
{
    const auto [ip, mask] = cutAt('/', network);
    const Record record{id, ip, static_cast<int16_t>(strtol(mask.c_str(), nullptr, 10))};
    const bool there = std::find(records.begin(), records.end(), record) != records.end();
    if (!ip.empty() && ip.size() <= 20 && id.size() <= 128 && !there && records.size() < 100) {
        records.push_back(record);
    }
}

Records loaded(const std::string &text)
{
    Records records;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min({text.find('\n', at), at + 254, text.size() - 1});
        const auto [id, network] = cutAt(';', text.substr(at, end + 1 - at));
        if (id.empty()) {
            break;
        }
        addTo(records, id, network);
        at = end + 1;
    }
    return records;
}

Records table()
{
    Records records;
    for (const vpc_record &record : g_vpc) {
        if (record.in_use != 0) {
            records.push_back({record.id, {record.ip, strnlen(record.ip, sizeof record.ip)}, record.mask});
        }
    }
    return records;
}

class VpcModel : public vpc::Table {
protected:
    uint64_t random(uint64_t limit) { return random_() % limit; }

    std::string text(size_t length, const std::string &alphabet)
    {
        std::string text;
        while (text.size() < length) {
            text += alphabet[random(alphabet.size())];
        }
        return text;
    }

    // Mostly ids as people give them, now and then one with the file's own separators or of the full length.
    std::string id()
    {
        switch (random(20)) {
        case 0:
            return text(random(129), "ab;/\n -");
        case 1:
            return text(125 + random(4), "xyz");
        default:
            return "vpc-" + std::to_string(random(500));
        }
    }
    std::string ip()
    {
        return random(20) == 0 ? text(1 + random(20), "0123.;\n ")
                               : std::to_string(random(256)) + "." + std::to_string(random(256)) + ".0.0";
    }
    int16_t mask() { return static_cast<int16_t>(random(20) == 0 ? random(65536) : random(33)); }

    Records fillTable()
    {
        Records records;
        memset(g_vpc, 0, sizeof g_vpc);
        const size_t count = random(25) == 0 ? 95 + random(6) : random(12);
        for (size_t i = 0; i < count; ++i) {
            records.push_back({id(), ip(), mask()});
            vpc::put(i, records.back().id, records.back().ip, records.back().mask);
        }
        return records;
    }

    std::mt19937_64 random_;
};

TEST_F(VpcModel, TheFileHoldsEveryOfTenThousandTablesAndGivesItBack)
{
    const VpcFile file;
    std::string content;
    random_.seed(1);
    for (int round = 0; round < 10000; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        fake::reset();
        if (random(4) == 0) { // else over the last round's
            file.remove();
            content.clear();
        }
        content = savedOver(content, fillTable());
        NasVpcSave();
        ASSERT_EQ(file.read(), content);
        NasClearVpcInfo();
        NasVpcLoad();
        ASSERT_EQ(table(), loaded(content));
    }
}

} // namespace
