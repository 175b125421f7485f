#pragma once

// The "did you mean" of a command line: the candidate nearest to a word a
// person mistyped.

#include <string>
#include <string_view>
#include <vector>

namespace tarskel {

// The candidate nearest to `word` by edit distance (an adjacent swap counts
// as one edit; a candidate that `word` begins counts as one), or "" when even
// the nearest is further than max(2, |word| / 3) edits. Ties go to the first.
std::string nearestWord(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace tarskel
