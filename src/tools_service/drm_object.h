// The class of the object that the DRI library creates.
#pragma once

#include <cstdint>

// Base class of the DRI library's objects. The library was compiled with exactly this class, and the program that loads
// the library must implement DecRef(). So the class is in no namespace, and the order of its members and virtual
// functions must not change. In the virtual table the destructor has the first two slots, and DecRef() the fifth.
class QelVTG {
 public:
  virtual ~QelVTG() = default;
  QelVTG(const QelVTG&) = delete;
  QelVTG& operator=(const QelVTG&) = delete;

  // For use inside of the library; the program does not call them.
  virtual void LibrarySlot2() = 0;
  virtual void LibrarySlot3() = 0;

  // Releases one reference. Releasing the last one deletes the object.
  virtual void DecRef();

 protected:
  QelVTG() = default;

 private:
  [[maybe_unused]] void* library_data_ = nullptr;
  std::int32_t reference_count_ = 0;
};
