// Splits the command line of a desktop entry.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Splits a command line at its spaces. A part in double quotes is one argument, exactly as written: a quote after a
// backslash does not end it, and the backslash is kept. Text directly before an opening quote is dropped. Returns an
// empty list when a quote has no partner. Any thread may call it.
std::vector<std::string> SplitCommandLine(std::string_view line);

}  // namespace qel
