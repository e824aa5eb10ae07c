#include "description/near-word.h"

#include <glib.h>

#include <algorithm>
#include <numeric>
#include <utility>

namespace {

constexpr std::size_t longest_word = 64;

char lower(char letter) {
  return g_ascii_tolower(letter);
}

// The letters to insert, leave out, replace or swap with their neighbour, whatever their case.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before;
  std::vector<std::size_t> last(b.size() + 1);
  std::iota(last.begin(), last.end(), 0);
  for (std::size_t i = 1; i <= a.size(); i++) {
    std::vector<std::size_t> now(b.size() + 1, i);
    for (std::size_t j = 1; j <= b.size(); j++) {
      const bool same = lower(a[i - 1]) == lower(b[j - 1]);
      now[j] = std::min({last[j] + 1, now[j - 1] + 1, last[j - 1] + (same ? 0 : 1)});
      if (i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2])
          && lower(a[i - 2]) == lower(b[j - 1])) {
        now[j] = std::min(now[j], before[j - 2] + 1);
      }
    }
    before = std::exchange(last, std::move(now));
  }
  return last.back();
}

} // namespace

std::string near_word(std::string_view text, const std::vector<std::string_view>& words) {
  if (text.empty() || text.size() > longest_word) {
    return {};
  }
  std::string_view nearest;
  // A third of the letters may be wrong, one in short words.
  std::size_t limit = std::max<std::size_t>(1, text.size() / 3) + 1;
  for (const auto word : words) {
    const auto mistakes = distance(text, word);
    if (mistakes < limit && mistakes < word.size()) {
      nearest = word;
      limit = mistakes;
    }
  }
  return std::string(nearest);
}
