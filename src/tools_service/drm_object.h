// The object that the DRI library hands out.
#pragma once

#include <cstdint>

// The base of the DRI library's objects. The library was built against exactly this class and leaves the
// implementation of DecRef() to the program that loads it: hence no namespace, and an order of members and virtual
// functions that must not change. The virtual table's first two slots are the destructor's, DecRef() has the fifth.
class QelVTG {
 public:
  virtual ~QelVTG() = default;
  QelVTG(const QelVTG&) = delete;
  QelVTG& operator=(const QelVTG&) = delete;

  // The library's own; the program does not call them.
  virtual void LibrarySlot2() = 0;
  virtual void LibrarySlot3() = 0;

  // Gives one reference back; the last one deletes the object.
  virtual void DecRef();

 protected:
  QelVTG() = default;

 private:
  [[maybe_unused]] void* library_data_ = nullptr;
  std::int32_t reference_count_ = 0;
};
