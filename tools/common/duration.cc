#include "common/duration.h"

#include <charconv>
#include <cstdint>

namespace gxtool {
namespace {

struct Unit {
  std::string_view name;
  std::int64_t milliseconds;
};
constexpr Unit kUnits[] = {{"h", 3'600'000}, {"m", 60'000}, {"s", 1'000}, {"ms", 1}};
constexpr std::int64_t kLongest = 10'000 * kUnits[0].milliseconds;

std::optional<std::int64_t> UnitLength(std::string_view name) {
  if (name.empty()) name = "s";
  for (const Unit& unit : kUnits) {
    if (unit.name == name) return unit.milliseconds;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text) {
  std::uint32_t count = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, count);
  if (error != std::errc()) return std::nullopt;
  const auto unit = UnitLength({rest, static_cast<std::size_t>(end - rest)});
  if (!unit || count > kLongest / *unit) return std::nullopt;
  return std::chrono::milliseconds(count * *unit);
}

std::string FormatDuration(std::chrono::milliseconds duration) {
  const std::int64_t count = duration.count();
  if (count == 0) return "0s";
  for (const Unit& unit : kUnits) {
    if (count % unit.milliseconds == 0) return std::to_string(count / unit.milliseconds).append(unit.name);
  }
  return {};
}

}  // namespace gxtool
