// From the Exec line of a desktop entry to the argument list of a program.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Splits `exec` into arguments, resolves their escapes and replaces the field codes that stand alone: the first of %f,
// %F, %u and %U becomes `document` when that is not empty, %c the program's name, every other known code goes. Codes
// inside longer arguments are left as they are. The list is empty when the line names no program: it is malformed,
// nothing of it remains, or the document would have become the program.
std::vector<std::string> ExecArguments(std::string_view exec, const std::string& document);

}  // namespace qel
