#include "suggest.h"
#include <algorithm>

namespace common {

constexpr size_t kMaxSlips = 2;
constexpr size_t kLettersPerSlip = 3;

static size_t slips(const std::string &a, const std::string &b)
{
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            const size_t other = cost[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            cost[i][j] = std::min({other, cost[i - 1][j] + 1, cost[i][j - 1] + 1});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
            }
        }
    }
    return cost[a.size()][b.size()];
}

std::string nearest(const std::string &word, const std::vector<std::string> &candidates)
{
    size_t best = std::min(kMaxSlips, word.size() / kLettersPerSlip) + 1;
    std::string found;
    for (const std::string &candidate : candidates) {
        // No need to compare what differs too much in length already; this also bounds the work for long words.
        if (word.size() > candidate.size() + kMaxSlips) {
            continue;
        }
        const size_t count = slips(word, candidate);
        if (count < best) {
            best = count;
            found = candidate;
        }
    }
    return found;
}

std::string suggestion(const std::string &word, const std::vector<std::string> &candidates)
{
    const std::string meant = nearest(word, candidates);
    return meant.empty() ? "" : "; did you mean " + meant + "?";
}

} // namespace common
