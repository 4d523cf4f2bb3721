// How much of the heap is in use.
#ifndef GX_TESTS_SUPPORT_HEAP_H
#define GX_TESTS_SUPPORT_HEAP_H

#include <malloc.h>

#include <cstddef>

#if defined(__has_feature)
#define GX_HAS_FEATURE(name) __has_feature(name)
#else
#define GX_HAS_FEATURE(name) 0
#endif

namespace gxtest {

// A sanitizer has a malloc and a shadow of its own: figures of memory say nothing then.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || GX_HAS_FEATURE(address_sanitizer) || \
    GX_HAS_FEATURE(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Bytes given out and not given back; 0 where a sanitizer has taken malloc over.
inline std::size_t HeapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_HEAP_H
