// How much of the heap is in use.
#ifndef GX_TESTS_SUPPORT_HEAP_H
#define GX_TESTS_SUPPORT_HEAP_H

#include <malloc.h>

#include <cstddef>

namespace gxtest {

// Bytes given out and not given back; 0 where a sanitizer has taken malloc over.
inline std::size_t HeapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_HEAP_H
