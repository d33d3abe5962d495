// Byte strings as text: for lines, tables and JSON.
//
// Values may hold any bytes. Where a value must not break a line or a terminal it is written with
// these functions; where it must arrive as it is (`get`) it is not.
//
// Threads: pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace AppCfgTool {

// Strictly: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isUtf8(std::string_view bytes);

// Characters of UTF-8 text, for padding; a byte that is no UTF-8 counts as one.
std::size_t characterCount(std::string_view text);

// One line whatever the bytes: \n, \r, \t, \\ and \xNN for other control characters and for bytes
// that are no UTF-8. Plain text is returned as it is.
std::string escapeLine(std::string_view bytes);

// A whole value on one line: a single element escaped as above; any other number of elements as
// ["a", "b"], where quotes inside are written \".
std::string valueOnOneLine(const std::vector<std::string>& value);

// The bytes that escapeLine wrote as this text; nothing when a backslash begins no such escape.
std::optional<std::string> unescapeLine(std::string_view text);

// RFC 4648, with padding.
std::string base64(std::string_view bytes);

// The bytes that base64 wrote as this text; nothing when it wrote no such text.
std::optional<std::string> fromBase64(std::string_view text);

// Rows of cells in columns two blanks apart; the last cell of a row is not padded. With a width, the
// widest columns are cut until a line has no more characters than that; "..." stands for what is gone.
// The first columns, so many of them as `whole` says, are never cut: people copy keys from there.
std::string alignColumns(const std::vector<std::vector<std::string>>& rows, std::size_t width = 0,
                         std::size_t whole = 0);

}  // namespace AppCfgTool
