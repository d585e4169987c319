// Lets a program follow the decisions of a load of the applications menu, in order to explain them.
#pragma once

#include <string_view>

namespace qel {

// The reason in an entry's own file for which no menu shows the entry.
enum class HiddenBy { kNothing, kNoDisplay, kOnlyShowIn, kNotShowIn };

// Its functions are called on the loading thread, at each decision. A menu is given as its path, for example
// "/Applications/Games".
class MenuObserver {
 public:
  virtual ~MenuObserver() = default;

  // The file of an entry was read.
  virtual void OnEntryRead(std::string_view /*id*/, HiddenBy /*hidden_by*/) {}

  // A file was not read, because an earlier file has the same id.
  virtual void OnEntryKnown(std::string_view /*id*/, std::string_view /*path*/) {}

  // The rules of a menu first included the entry and then excluded it.
  virtual void OnEntryExcluded(std::string_view /*id*/, std::string_view /*menu*/) {}

  // The rules of a menu selected the entry. The menu itself may be hidden.
  virtual void OnEntryPlaced(std::string_view /*id*/, std::string_view /*menu*/) {}
};

}  // namespace qel
