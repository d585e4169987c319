// Converts the Exec line of a desktop entry to the argument list of a program (freedesktop.org Desktop Entry standard).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Splits `exec` into arguments and decodes their escapes. An argument that consists of a field code is replaced: the
// first of %f, %F, %u and %U by `document` unless that is empty, and %c by the first argument. All other known codes
// are removed. Codes inside of longer arguments are not changed. The result is empty when there is no program to run:
// the line is malformed, no argument remains, or the document would be the program. Any thread may call it.
std::vector<std::string> ExecArguments(std::string_view exec, const std::string& document);

}  // namespace qel
