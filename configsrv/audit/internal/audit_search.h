// audit_search: which lines the audit record lacks.
//
// Looked for from the end of the file backwards, for what is missing is of the last moments of a
// service. A line counts as there when a line of the file begins with it and goes on with a field
// or ends there. What stands farther from the end than kMaxSearchBytes is not found, nor what is in
// a file that was rotated away.
//
// Threads:  plain functions.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ConfigSrv {

constexpr std::size_t kMaxSearchBytes = std::size_t{16} * 1024 * 1024;

// For each of the lines, whether the file has it. The lines come without their closing brace. A
// file that is missing, or cannot be read, has none of them.
std::vector<bool> linesInFile(const std::string& path, const std::vector<std::string>& lines,
                              std::size_t maxBytes = kMaxSearchBytes);

}  // namespace ConfigSrv
