// Converts host paths of shared folders ("//Mac/Share/..." and "//.qsf/Share/...") to paths in the guest. Any thread
// may call these functions; nothing is logged.
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

// Finds the share in the mounts of type "qel_fs" and writes the guest path, NUL-terminated, to `out`. A path without
// one of these prefixes is copied unchanged. The content of `out` is valid only when the result is kResolved.
SharedFolderStatus ResolveSharedFolderPath(std::span<char> out, const char* path,
                                           const char* mount_table = "/proc/mounts");

// Decodes the octal escapes ("\040") of one field of the mount table in place. `length` is in bytes and includes the
// terminating NUL.
void UnescapeMountField(char* text, std::size_t length);

// Returns the next field of the line at `cursor`, terminates it with a NUL and moves the cursor after it. Fields are
// separated by spaces or tabs. Returns null at the end of the line.
char* NextMountField(char*& cursor);

}  // namespace qel
