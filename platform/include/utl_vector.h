// utl_vector.h - vector of pointers of the utility library (libutlbase.so.1).
//
// Contract of a port:
//  - The vector never owns what its elements point to: removing, clearing and destroying delete
//    nothing but the vector's own memory, which comes from UtlOS.
//  - Adding past the end fails; an element out of range is null; removing out of range fails.
//  - When memory runs out an addition fails and leaves the vector as it was. Nothing is thrown but
//    what UtlOS throws.

#ifndef UTL_VECTOR_H
#define UTL_VECTOR_H

#include "utl_export.h"
#include "utl_object.h"

class UTL_API UtlVector : public UtlObject {
 public:
  explicit UtlVector(int capacity = 0);  // capacity is a hint; a negative one means 0
  UtlVector(const UtlVector&) = delete;
  UtlVector& operator=(const UtlVector&) = delete;
  ~UtlVector() override;

  int Count() const noexcept { return m_nCount; }
  // The element at `index`, or null when there is none.
  void* ElementAt(int index) const noexcept;
  // Inserts before `index` (0 to Count()). 1 on success, 0 when out of range or out of memory.
  int Add(int index, void* element);
  // Removes the element at `index`; later ones move up. 1 on success, 0 when out of range.
  int Remove(int index) noexcept;

 private:
  void** m_pElements;
  int m_nCount;
  int m_nCapacity;
};

#endif
