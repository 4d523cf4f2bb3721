// Reference-counted objects that live as long as their holder.
#ifndef GX_STREAM_PROPERTY_LIST_H
#define GX_STREAM_PROPERTY_LIST_H

#include <vector>

#include "base/mutex_lock.h"
#include "gxmod/reference.h"

class IPropertyList_Impl {
 public:
  virtual ~IPropertyList_Impl() = default;
  // Takes a reference to `property`; the same one may be added twice. False for null.
  virtual bool AddProperty(IReference* property) = 0;
  // Releases the first matching entry. False when null or not found.
  virtual bool DelProperty(IReference* property) = 0;
  // Releases all entries, in the order in which they were added. Always true.
  virtual bool DeleteAll() = 0;
};

// Threads: any. References are dropped outside the lock, so a property's destructor may call this object.
class CPropertyList {
 public:
  bool Add(IReference* property);
  bool Remove(IReference* property);
  void Clear();

 private:
  CStdMutex mutex_;
  std::vector<CRefObj<IReference>> properties_ GUARDED_BY(mutex_);
};

#endif  // GX_STREAM_PROPERTY_LIST_H
