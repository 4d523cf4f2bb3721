// The clock and thread ids, which differ between systems.
#ifndef GX_BASE_CLOCK_H
#define GX_BASE_CLOCK_H

#include <cstdint>

// Whole milliseconds of a monotonic clock, rounded down.
std::uint64_t gettickcount();

// The kernel's numeric id of the calling thread.
std::uint32_t GetCurrentThreadNumber();

#endif  // GX_BASE_CLOCK_H
