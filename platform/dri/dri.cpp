// libQelDRI.so.1: named DRM device objects. An object holds its device open for as long as somebody holds the object.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <new>

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
  std::int32_t reference_count_ = 1;  // the creator's
};

namespace {

class DrmDevice final : public QelVTG {
 public:
  explicit DrmDevice(int descriptor) : descriptor_(descriptor) {}
  ~DrmDevice() override { close(descriptor_); }

  void LibrarySlot2() override {}
  void LibrarySlot3() override { ++reference_count_; }

 private:
  int descriptor_;
};

}  // namespace

// A new object with one reference, or null when the device cannot be opened.
extern "C" __attribute__((visibility("default"))) QelVTG* QelDRMCreateNamed(const char* device) {
  const int descriptor = open(device, O_RDWR | O_CLOEXEC);
  if (descriptor < 0) {
    return nullptr;
  }
  QelVTG* object = new (std::nothrow) DrmDevice(descriptor);
  if (object == nullptr) {
    close(descriptor);
  }
  return object;
}
