// Host paths of shared folders ("//Mac/Share/..." and "//.qsf/Share/...") as paths of the guest.
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

// Looks the share up among the mounts of type "qel_fs" and writes the guest path into `out`. A path with neither prefix
// is copied as it is. Nothing is logged.
SharedFolderStatus ResolveSharedFolderPath(std::span<char> out, const char* path,
                                           const char* mount_table = "/proc/mounts");

// Decodes the octal escapes of one field of the mount table in place. `length` counts the terminating NUL.
void UnescapeMountField(char* text, std::size_t length);

// Cuts the next field off at `cursor` (fields are separated by blanks or tabs) and moves the cursor behind it. Null
// when the line is used up.
char* NextMountField(char*& cursor);

}  // namespace qel
