#include "stream/property_list.h"

#include <algorithm>
#include <utility>

bool CPropertyList::Add(IReference* property) {
  if (property == nullptr) return false;
  CStdLock lock(mutex_);
  properties_.emplace_back(property);
  return true;
}

bool CPropertyList::Remove(IReference* property) {
  if (property == nullptr) return false;
  CRefObj<IReference> removed;
  CStdLock lock(mutex_);
  const auto found = std::find(properties_.begin(), properties_.end(), property);
  if (found == properties_.end()) return false;
  removed = std::move(*found);
  properties_.erase(found);
  return true;
}

void CPropertyList::Clear() {
  std::vector<CRefObj<IReference>> removed;
  {
    CStdLock lock(mutex_);
    removed.swap(properties_);
  }
  for (CRefObj<IReference>& property : removed) property = nullptr;
}
