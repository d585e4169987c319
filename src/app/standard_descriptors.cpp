#include "app/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace qel {

void OpenMissingStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) < 0) {
      // open() returns the lowest free number, which is this one. No O_CLOEXEC: started programs inherit it.
      open("/dev/null", O_RDWR);
    }
  }
}

}  // namespace qel
