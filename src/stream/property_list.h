// Counted objects whose life is tied to that of their holder.
#ifndef GX_STREAM_PROPERTY_LIST_H
#define GX_STREAM_PROPERTY_LIST_H

#include <vector>

#include "base/mutex_lock.h"
#include "gxmod/reference.h"

class IPropertyList_Impl {
 public:
  virtual ~IPropertyList_Impl() = default;
  // Takes a reference on `property`; the same one may be added twice. False for null.
  virtual bool AddProperty(IReference* property) = 0;
  // Releases the first entry that is `property`. False: null or not found.
  virtual bool DelProperty(IReference* property) = 0;
  // Releases every entry, in the order in which they were added. Always true.
  virtual bool DeleteAll() = 0;
};

// Threads: any. References are dropped outside the lock, so a property's destructor may come back here.
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
