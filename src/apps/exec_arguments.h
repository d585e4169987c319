// From the Exec line of a desktop entry to the argument list of a program.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Splits `exec` into arguments and resolves their escapes. An argument that is a field code is replaced: the first of
// %f, %F, %u and %U by `document` when that is not empty, %c by the first argument. Every other known code is removed.
// Codes inside longer arguments are left as they are. The result is empty when the line names no program: it is
// malformed, nothing of it remains, or the document would become the program.
std::vector<std::string> ExecArguments(std::string_view exec, const std::string& document);

}  // namespace qel
