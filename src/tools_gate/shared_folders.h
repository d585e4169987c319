// Turns host paths of shared folders ("//Mac/Share/..." and "//.qsf/Share/...") into paths of the guest. Any thread may
// call these functions; nothing is logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace qel {

enum class SharedFolderStatus : int {
  kResolved = 0,     // the output holds a NUL-terminated guest path
  kNotResolved = 1,  // no such share is mounted, or its mount point does not fit
  kTooLong = 2,      // the resolved path does not fit
};

// Looks for the share among the mounts of type "qel_fs" and writes the guest path into `out`. A path without one of
// those prefixes is copied as it is. Unless the result is kResolved `out` may hold anything.
SharedFolderStatus ResolveSharedFolderPath(std::span<char> out, const char* path,
                                           const char* mount_table = "/proc/mounts");

// Decodes the octal escapes of one field of the mount table in place. `length` counts the terminating NUL.
void UnescapeMountField(char* text, std::size_t length);

// Returns the next field of the line at `cursor`, ends it with a NUL and moves the cursor behind it. Fields are
// separated by blanks or tabs. Null at the end of the line.
char* NextMountField(char*& cursor);

}  // namespace qel
