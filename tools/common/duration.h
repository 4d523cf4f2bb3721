// Durations as people write them: "500ms", "15s", "2m", "1h". A plain number is in seconds.
#ifndef GX_COMMON_DURATION_H
#define GX_COMMON_DURATION_H

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace gxtool {

// Empty for any other text, including signs, fractions and more than 10,000 hours.
std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text);

// In the largest unit that divides it: 90,000 ms give "90s", 120,000 ms "2m".
std::string FormatDuration(std::chrono::milliseconds duration);

}  // namespace gxtool

#endif  // GX_COMMON_DURATION_H
