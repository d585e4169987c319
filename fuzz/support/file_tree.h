// Files in memory, so that a fuzz target writes no files and its results do not depend on the machine.
//
// Every fuzz target is linked with replacements for the functions with which the program lists, tests and opens files.
// The replacements call the real functions while there is no FileTree. For one thread.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qel::fuzz {

// While an object exists, the program sees this tree and no file of the machine. There is one object at a time. Its
// destructor checks that the program has closed all files.
class FileTree {
 public:
  struct Node {
    std::string content;
    bool is_folder = false;
    bool is_executable = false;
    bool is_readable = true;
    std::set<std::string> names = {};  // in a folder; kept by the tree
  };

  // `watched` is a path for WasAsked().
  explicit FileTree(std::string watched = {});
  ~FileTree();
  FileTree(const FileTree&) = delete;
  FileTree& operator=(const FileTree&) = delete;

  // Add a folder or file, and the folders above it. A path is absolute and has no "." or "..". A path that leads
  // through a file, or that exists already, is ignored.
  void AddFolder(const std::string& path);
  void AddFile(const std::string& path, const Node& file);
  void AddFile(const std::string& path, std::string_view content) { AddFile(path, Node{std::string(content)}); }

  // The node at a path; null, with errno set, when there is none.
  const Node* Find(const std::string& path);

  // Whether the program has asked for the watched path, present or not, under any of its names.
  bool WasAsked() const { return was_asked_; }

  // The names in a folder; empty when there is no such folder.
  std::set<std::string> List(const std::string& folder);

 private:
  const Node* Walk(const std::string& path, std::string& found) const;

  std::unordered_map<std::string, Node> nodes_;  // by path without a "/" at the end; the root is empty
  const std::string watched_;
  bool was_asked_ = false;
  int free_descriptor_;  // the lowest free descriptor at construction
};

// The log of the program. It is discarded until the first call; afterwards each call returns the lines that were
// written since the last one.
std::string TakeLog();

}  // namespace qel::fuzz
