// utl_object.h - common base class of the utility library (libutlbase.so.1).

#ifndef UTL_OBJECT_H
#define UTL_OBJECT_H

#include "utl_export.h"

// Base of every class whose objects are destroyed through a base pointer.
class UTL_API UtlObject {
 public:
  UtlObject() = default;
  UtlObject(const UtlObject&) = default;
  UtlObject& operator=(const UtlObject&) = default;
  virtual ~UtlObject();
};

#endif
