#include "app/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace qel {

void OpenMissingStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) < 0) {
      // The lowest free number, and those below it are in use by now. Programs that are started inherit it.
      open("/dev/null", O_RDWR);
    }
  }
}

}  // namespace qel
