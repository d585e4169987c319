// libQelDRI.so.1: objects for DRM devices. An object keeps its device open until its last reference is released.

#include <fcntl.h>

#include <cstdint>
#include <new>
#include <utility>

#include "common/unique_fd.h"

// Base class of the objects. It is in no namespace because the program that opens the library declares the same class,
// implements DecRef(), and exports it with the virtual table.
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
