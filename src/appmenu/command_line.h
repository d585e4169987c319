// Splitting the command line of a desktop entry.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Cuts a command line at its spaces. A part in double quotes is one argument, taken exactly as written: a quote behind
// a backslash does not end it, and the backslash stays. What directly precedes an opening quote is dropped. An unpaired
// quote makes the line malformed, which is reported by an empty list. Keeps no state; any thread may call it.
std::vector<std::string> SplitCommandLine(std::string_view line);

}  // namespace qel
