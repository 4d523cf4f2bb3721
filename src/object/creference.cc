#include "object/creference.h"

std::int64_t CReference::AddRef() { return references_.fetch_add(1, std::memory_order_relaxed) + 1; }

std::int64_t CReference::Release() {
  // acq_rel: everything that any thread did before its Release happens before the destructor.
  const std::int64_t left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left != 0) return left;
  if (DropHold() == 0) delete this;
  return 0;
}

std::int64_t CReference::AddHold() { return holds_.fetch_add(1, std::memory_order_relaxed) + 1; }

std::int64_t CReference::DropHold() { return holds_.fetch_sub(1, std::memory_order_acq_rel) - 1; }
