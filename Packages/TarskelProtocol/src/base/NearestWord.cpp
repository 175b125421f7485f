#include "tarskel/protocol/base/NearestWord.hpp"

#include <algorithm>

namespace tarskel {
namespace {

// Levenshtein distance, with an adjacent swap counting as one edit.
std::size_t editDistance(std::string_view word, std::string_view candidate) {
  const std::size_t n = word.size();
  const std::size_t m = candidate.size();
  std::vector<std::vector<std::size_t>> d(n + 1, std::vector<std::size_t>(m + 1));
  for (std::size_t i = 0; i <= n; ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= m; ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= n; ++i) {
    for (std::size_t j = 1; j <= m; ++j) {
      const std::size_t cost = word[i - 1] == candidate[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && word[i - 1] == candidate[j - 2] && word[i - 2] == candidate[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[n][m];
}

}  // namespace

std::string nearestWord(std::string_view word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t bestDistance = std::string::npos;
  for (const std::string& candidate : candidates) {
    std::size_t distance = editDistance(word, candidate);
    if (!word.empty() && candidate.starts_with(word)) distance = std::min<std::size_t>(distance, 1);
    if (distance < bestDistance) {
      bestDistance = distance;
      best = candidate;
    }
  }
  const std::size_t allowed = std::max<std::size_t>(2, word.size() / 3);
  return bestDistance <= allowed ? best : std::string();
}

}  // namespace tarskel
