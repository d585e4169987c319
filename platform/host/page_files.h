// The page's files, which are part of the program.
#pragma once

#include <span>
#include <string_view>

namespace qel::host {

struct PageFile {
  std::string_view name;
  std::string_view type;
  std::string_view content;
};

std::span<const PageFile> PageFiles();

}  // namespace qel::host
