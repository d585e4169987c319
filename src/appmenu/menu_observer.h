// Following what a load of the applications menu decides, for programs that explain it.
#pragma once

#include <string_view>

namespace qel {

// Why an entry is in no menu whatever the rules say.
enum class HiddenBy { kNothing, kNoDisplay, kOnlyShowIn, kNotShowIn };

// Told of each decision as it is taken, on the loading thread. A menu is named by its path, as in
// "/Applications/Games".
class MenuObserver {
 public:
  virtual ~MenuObserver() = default;

  // The file that supplied an entry was read.
  virtual void OnEntryRead(std::string_view /*id*/, HiddenBy /*hidden_by*/) {}

  // A file gives an id that another file supplied before; it was not read.
  virtual void OnEntryKnown(std::string_view /*id*/, std::string_view /*path*/) {}

  // A menu's rules selected the entry and later took it out again.
  virtual void OnEntryExcluded(std::string_view /*id*/, std::string_view /*menu*/) {}

  // A menu's rules selected the entry.
  virtual void OnEntryPlaced(std::string_view /*id*/, std::string_view /*menu*/) {}
};

}  // namespace qel
