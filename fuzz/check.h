// What every target needs: a check that stops the search.
#ifndef GX_FUZZ_CHECK_H
#define GX_FUZZ_CHECK_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

inline void Check(bool holds) {
  if (!holds) std::abort();
}

inline std::string Text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

#endif  // GX_FUZZ_CHECK_H
