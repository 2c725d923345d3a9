#include "nearest_key.h"

#include <algorithm>
#include <vector>

#include "platform/standin/config/config_file.h"

namespace doctor {
namespace {

const size_t kMostEdits = 2;

// Levenshtein distance, one row at a time.
size_t editDistance(const std::string& from, const std::string& to) {
  std::vector<size_t> row(to.size() + 1);
  for (size_t j = 0; j <= to.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= from.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= to.size(); ++j) {
      const size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
    }
  }
  return row[to.size()];
}

}  // namespace

std::string nearestKnownKey(const std::string& key) {
  std::string nearest;
  size_t fewest = std::min(kMostEdits + 1, key.size());
  for (const std::string& known : standin::knownConfigKeys()) {
    const size_t edits = editDistance(key, known);
    if (edits < fewest) {
      fewest = edits;
      nearest = known;
    }
  }
  return nearest;
}

}  // namespace doctor
