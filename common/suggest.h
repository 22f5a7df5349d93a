/*
 * The word that somebody most likely meant.
 */
#pragma once

#include <string>
#include <vector>

namespace common {

// The candidate with the fewest slips (a letter more, less, other, or two swapped) from the word; at most two, and
// one for every three letters of the word. Empty when there is none.
std::string nearest(const std::string &word, const std::vector<std::string> &candidates);

// "; did you mean CANDIDATE?", or nothing.
std::string suggestion(const std::string &word, const std::vector<std::string> &candidates);

} // namespace common
