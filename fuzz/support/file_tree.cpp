#include "support/file_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "log/log.h"
#include "support/fuzzed_data.h"

namespace qel::fuzz {
namespace {

constexpr const char* kLogFolder = "/log";
constexpr std::size_t kFolderBytesPerName = 300;
constexpr std::string_view kLogPath = "/log/corvessan.log";

FileTree* g_tree = nullptr;
int g_log = -1;  // memory with the log; -1: the log is discarded

// What DIR points to while there is a tree.
struct OpenFolder {
  int descriptor;
  std::vector<dirent> entries;
  std::size_t next = 0;
};

std::map<int, std::string> g_folders;  // descriptors of folders that fdopendir() has not taken yet

[[maybe_unused]] const auto g_log_is_moved = [] {
  SetLogDirectory(kLogFolder);
  return true;
}();

int MemoryWith(std::string_view content) {
  const int memory = memfd_create("file", MFD_CLOEXEC);
  Expect(memory >= 0 && write(memory, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
             lseek(memory, 0, SEEK_SET) == 0,
         "a file can be made in memory");
  return memory;
}

int LowestFreeDescriptor() {
  const int descriptor = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
  close(descriptor);
  return descriptor;
}

int Fail(int reason) {
  errno = reason;
  return -1;
}

OpenFolder* Open(int descriptor, const std::string& path) {
  auto* const folder = new OpenFolder{.descriptor = descriptor, .entries = {}};
  std::set<std::string> names = g_tree->List(path);
  names.insert({".", ".."});
  for (const std::string& name : names) {
    dirent& entry = folder->entries.emplace_back();
    std::memcpy(entry.d_name, name.c_str(), name.size() + 1);
    const FileTree::Node* const node = g_tree->Find(path + '/' + name);
    entry.d_type = node == nullptr || node->is_folder ? DT_DIR : DT_REG;
  }
  return folder;
}

int Status(const char* path, struct stat* status) {
  const FileTree::Node* const node = g_tree->Find(path);
  if (node == nullptr) {
    return -1;
  }
  *status = {};
  status->st_mode = node->is_folder ? S_IFDIR : S_IFREG;
  status->st_size =
      static_cast<off_t>(node->is_folder ? node->names.size() * kFolderBytesPerName : node->content.size());
  return 0;
}

}  // namespace

FileTree::FileTree(std::string watched) : watched_(std::move(watched)) {
  nodes_[""].is_folder = true;
  Expect(g_tree == nullptr, "there is one tree at a time");
  // The first line opens the log, which stays open.
  static const bool log_is_open = (LogError(kModuleAgent, "Files in memory"), true);
  Expect(log_is_open, "the log is open");
  free_descriptor_ = LowestFreeDescriptor();
  g_tree = this;
}

FileTree::~FileTree() {
  Expect(g_folders.empty() && LowestFreeDescriptor() == free_descriptor_, "no file or folder is left open");
  g_tree = nullptr;
}

void FileTree::AddFolder(const std::string& path) {
  AddFile(path, {.content = {}, .is_folder = true});
}

void FileTree::AddFile(const std::string& path, const Node& file) {
  for (std::size_t begin = 0; begin != std::string::npos;) {
    const std::size_t end = path.find('/', begin + 1);
    Node& folder = nodes_.try_emplace(path.substr(0, begin), Node{.content = {}, .is_folder = true}).first->second;
    if (!folder.is_folder) {
      return;
    }
    folder.names.insert(path.substr(begin + 1, end - begin - 1));
    begin = end;
  }
  nodes_.try_emplace(path, file);
}

const FileTree::Node* FileTree::Find(const std::string& path) {
  std::string found;
  const auto exact = nodes_.find(path);
  const Node* const node = exact != nodes_.end() && !path.empty() ? &exact->second : Walk(path, found);
  was_asked_ = was_asked_ || (!watched_.empty() && (path == watched_ || found == watched_));
  return node;
}

// `found` gets the path without "//", "." and "..", up to the first name that does not exist.
const FileTree::Node* FileTree::Walk(const std::string& path, std::string& found) const {
  if (path.size() >= PATH_MAX) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  auto node = nodes_.find("");
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view name = std::string_view(path).substr(begin, end - begin);
    begin = end + 1;
    if (!node->second.is_folder) {
      errno = ENOTDIR;
      return nullptr;
    }
    if (name == "..") {
      found.resize(std::min(found.rfind('/'), found.size()));
    } else if (!name.empty() && name != ".") {
      found.append("/").append(name);
    }
    node = name.size() > NAME_MAX ? nodes_.end() : nodes_.find(found);
    if (node == nodes_.end()) {
      errno = name.size() > NAME_MAX ? ENAMETOOLONG : ENOENT;
      return nullptr;
    }
  }
  if (!path.starts_with('/') || (path.ends_with('/') && !node->second.is_folder)) {
    errno = ENOENT;
    return nullptr;
  }
  return &node->second;
}

std::set<std::string> FileTree::List(const std::string& folder) {
  const Node* const node = Find(folder);
  return node != nullptr ? node->names : std::set<std::string>();
}

std::string TakeLog() {
  if (g_log < 0) {
    g_log = MemoryWith({});
    fcntl(g_log, F_SETFL, O_APPEND);
    SetLogDirectory(kLogFolder);  // opens the log again
  }
  std::string text(static_cast<std::size_t>(lseek(g_log, 0, SEEK_END)), '\0');
  Expect(pread(g_log, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) && ftruncate(g_log, 0) == 0,
         "the log can be read");
  return text;
}

}  // namespace qel::fuzz

// The replacements. The linker option --wrap redirects calls of NAME to __wrap_NAME, and of __real_NAME to NAME.

using qel::fuzz::Fail;
using qel::fuzz::FileTree;
using qel::fuzz::g_tree;
using qel::fuzz::OpenFolder;

extern "C" {

int __real_open64(const char* path, int flags, ...);
FILE* __real_fopen64(const char* path, const char* mode);
int __real_access(const char* path, int mode);
int __real_stat64(const char* path, struct stat* status);
int __real_lstat64(const char* path, struct stat* status);
DIR* __real_opendir(const char* path);
DIR* __real_fdopendir(int descriptor);
dirent* __real_readdir64(DIR* folder);
int __real_dirfd(DIR* folder);
int __real_closedir(DIR* folder);

int __wrap_open64(const char* path, int flags, ...) {
  if (path == qel::fuzz::kLogPath) {
    return qel::fuzz::g_log < 0 ? __real_open64("/dev/null", O_WRONLY | O_CLOEXEC)
                                : fcntl(qel::fuzz::g_log, F_DUPFD_CLOEXEC, 0);
  }
  if (g_tree == nullptr) {
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return __real_open64(path, flags, mode);
  }
  const FileTree::Node* const node = g_tree->Find(path);
  if (node == nullptr) {
    return -1;
  }
  if (!node->is_readable || (flags & O_ACCMODE) != O_RDONLY) {
    return Fail(EACCES);
  }
  if ((flags & O_DIRECTORY) != 0 && !node->is_folder) {
    return Fail(ENOTDIR);
  }
  const int descriptor = qel::fuzz::MemoryWith(node->content);
  if ((flags & O_DIRECTORY) != 0) {
    qel::fuzz::g_folders.emplace(descriptor, path);
  }
  return descriptor;
}

FILE* __wrap_fopen64(const char* path, const char* mode) {
  if (g_tree == nullptr) {
    return __real_fopen64(path, mode);
  }
  const int descriptor = __wrap_open64(path, O_RDONLY);
  return descriptor < 0 ? nullptr : fdopen(descriptor, mode);
}

int __wrap_access(const char* path, int mode) {
  if (g_tree == nullptr) {
    return __real_access(path, mode);
  }
  const FileTree::Node* const node = g_tree->Find(path);
  if (node == nullptr) {
    return -1;
  }
  const bool allowed = ((mode & R_OK) == 0 || node->is_readable) && (mode & W_OK) == 0 &&
                       ((mode & X_OK) == 0 || node->is_folder || node->is_executable);
  return allowed ? 0 : Fail(EACCES);
}

int __wrap_stat64(const char* path, struct stat* status) {
  return g_tree == nullptr ? __real_stat64(path, status) : qel::fuzz::Status(path, status);
}

int __wrap_lstat64(const char* path, struct stat* status) {
  return g_tree == nullptr ? __real_lstat64(path, status) : qel::fuzz::Status(path, status);
}

DIR* __wrap_fdopendir(int descriptor) {
  if (g_tree == nullptr) {
    return __real_fdopendir(descriptor);
  }
  const auto folder = qel::fuzz::g_folders.extract(descriptor);
  if (folder.empty()) {
    errno = EBADF;
    return nullptr;
  }
  return reinterpret_cast<DIR*>(qel::fuzz::Open(descriptor, folder.mapped()));
}

DIR* __wrap_opendir(const char* path) {
  if (g_tree == nullptr) {
    return __real_opendir(path);
  }
  const int descriptor = __wrap_open64(path, O_RDONLY | O_DIRECTORY);
  return descriptor < 0 ? nullptr : __wrap_fdopendir(descriptor);
}

dirent* __wrap_readdir64(DIR* folder) {
  if (g_tree == nullptr) {
    return __real_readdir64(folder);
  }
  auto* const open = reinterpret_cast<OpenFolder*>(folder);
  return open->next < open->entries.size() ? &open->entries[open->next++] : nullptr;
}

int __wrap_dirfd(DIR* folder) {
  return g_tree == nullptr ? __real_dirfd(folder) : reinterpret_cast<OpenFolder*>(folder)->descriptor;
}

int __wrap_closedir(DIR* folder) {
  if (g_tree == nullptr) {
    return __real_closedir(folder);
  }
  auto* const open = reinterpret_cast<OpenFolder*>(folder);
  const int result = close(open->descriptor);
  delete open;
  return result;
}

}  // extern "C"
