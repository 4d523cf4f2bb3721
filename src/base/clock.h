// What differs between systems about time and thread ids.
#ifndef GX_BASE_CLOCK_H
#define GX_BASE_CLOCK_H

#include <cstdint>

// Whole milliseconds of a monotonic clock, truncated. Never the time of day.
std::uint64_t gettickcount();

// The kernel's numeric id of the calling thread.
std::uint32_t GetCurrentThreadNumber();

#endif  // GX_BASE_CLOCK_H
