// libQelDRI.so.1: named DRM device objects. An object holds its device open for as long as somebody holds the object.

#include <fcntl.h>

#include <cstdint>
#include <new>
#include <utility>

#include "common/unique_fd.h"

// The base of the objects, in no namespace since the program that opens the library implements DecRef() and exports it
// together with the class's virtual table. The program declares the same class.
class QelVTG {
 public:
  virtual ~QelVTG() = default;
  QelVTG(const QelVTG&) = delete;
  QelVTG& operator=(const QelVTG&) = delete;

  virtual void LibrarySlot2() = 0;
  virtual void LibrarySlot3() = 0;
  virtual void DecRef();

 protected:
  QelVTG() = default;

  void* library_data_ = nullptr;
  std::int32_t reference_count_ = 1;  // the reference of the creator
};

namespace {

class DrmDevice final : public QelVTG {
 public:
  explicit DrmDevice(qel::UniqueFd device) : device_(std::move(device)) {}

  void LibrarySlot2() override {}
  void LibrarySlot3() override { ++reference_count_; }

 private:
  const qel::UniqueFd device_;
};

}  // namespace

// Returns a new object with one reference, or null when the device cannot be opened.
extern "C" __attribute__((visibility("default"))) QelVTG* QelDRMCreateNamed(const char* device) {
  qel::UniqueFd opened(open(device, O_RDWR | O_CLOEXEC));
  return opened ? new (std::nothrow) DrmDevice(std::move(opened)) : nullptr;
}
