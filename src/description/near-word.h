// Which word somebody may have meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The word that is the fewest typing mistakes away from the text; empty when none is near.
[[nodiscard]] std::string near_word(std::string_view text,
                                    const std::vector<std::string_view>& words);
