// UTF-8 is read character by character through characterLength(), which knows every form that is not
// allowed; escaping, counting and checking are built on it. Base64 is here because a document carries
// bytes that are no text in it.
#include "tools/appcfg/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace AppCfgTool {
namespace {

constexpr std::string_view kBase64Digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

struct LeadByte {
  std::size_t length;
  // Range of the second byte: narrower than 80..BF where the lead could begin an overlong form, a
  // surrogate or a number past the last character.
  unsigned low;
  unsigned high;
};

LeadByte leadByte(unsigned c) {
  if (c < 0x80) return {1, 0, 0};
  if (c >= 0xc2 && c <= 0xdf) return {2, 0x80, 0xbf};
  if (c == 0xe0) return {3, 0xa0, 0xbf};
  if (c == 0xed) return {3, 0x80, 0x9f};
  if (c >= 0xe1 && c <= 0xef) return {3, 0x80, 0xbf};
  if (c == 0xf0) return {4, 0x90, 0xbf};
  if (c >= 0xf1 && c <= 0xf3) return {4, 0x80, 0xbf};
  if (c == 0xf4) return {4, 0x80, 0x8f};
  return {0, 0, 0};
}

unsigned byteAt(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// Length of the character that begins here; 0 when none does.
std::size_t characterLength(std::string_view text, std::size_t at) {
  const LeadByte lead = leadByte(byteAt(text, at));
  if (lead.length < 2) return lead.length;
  if (lead.length > text.size() - at) return 0;
  const unsigned second = byteAt(text, at + 1);
  if (second < lead.low || second > lead.high) return 0;
  for (std::size_t i = 2; i < lead.length; ++i) {
    if ((byteAt(text, at + i) & 0xc0U) != 0x80U) return 0;
  }
  return lead.length;
}

void appendHex(std::string& out, unsigned byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  out += "\\x";
  out += kDigits[byte >> 4];
  out += kDigits[byte & 0xf];
}

void appendAscii(std::string& out, char c) {
  const unsigned byte = static_cast<unsigned char>(c);
  if (c == '\n') {
    out += "\\n";
  } else if (c == '\r') {
    out += "\\r";
  } else if (c == '\t') {
    out += "\\t";
  } else if (c == '\\') {
    out += "\\\\";
  } else if (byte < 0x20 || byte == 0x7f) {
    appendHex(out, byte);
  } else {
    out += c;
  }
}

// U+0080 to U+009F: terminals obey these two bytes as they obey an escape sequence.
bool isControlCharacter(std::string_view text, std::size_t at, std::size_t length) {
  return length == 2 && byteAt(text, at) == 0xc2 && byteAt(text, at + 1) < 0xa0;
}

// Returns how many bytes were taken.
std::size_t appendEscaped(std::string& out, std::string_view text, std::size_t at) {
  const std::size_t length = characterLength(text, at);
  if (length == 1) {
    appendAscii(out, text[at]);
    return 1;
  }
  if (length == 0 || isControlCharacter(text, at, length)) {
    appendHex(out, byteAt(text, at));
    return 1;
  }
  out += text.substr(at, length);
  return length;
}

// -1 for what is no digit as appendHex writes it.
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Of a text that begins with a backslash. Returns how many bytes were taken, 0 when it is none of
// the escapes.
std::size_t appendUnescaped(std::string& out, std::string_view text) {
  constexpr std::string_view kLetters = "nrt\\";
  constexpr std::string_view kBytes = "\n\r\t\\";
  if (text.size() < 2) return 0;
  const std::size_t letter = kLetters.find(text[1]);
  if (letter != std::string_view::npos) {
    out += kBytes[letter];
    return 2;
  }
  if (text[1] != 'x' || text.size() < 4) return 0;
  const int high = hexValue(text[2]);
  const int low = hexValue(text[3]);
  if (high < 0 || low < 0) return 0;
  out += static_cast<char>(high << 4 | low);
  return 4;
}

std::string quoted(std::string_view bytes) {
  std::string out = "\"";
  for (const char c : escapeLine(bytes)) {
    if (c == '"') out += '\\';
    out += c;
  }
  return out + '"';
}

std::vector<std::size_t> columnWidths(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], characterCount(row[i]));
    }
  }
  return widths;
}

// A column that is cut keeps at least so many characters, even if the line is then too long.
constexpr std::size_t kLeastCut = 10;
constexpr std::string_view kCut = "...";

void fitInto(std::size_t width, std::size_t whole, std::vector<std::size_t>& widths) {
  if (widths.size() <= whole) return;
  std::size_t line = 2 * (widths.size() - 1);
  for (const std::size_t column : widths) line += column;
  for (; line > width; --line) {
    const auto widest =
        std::max_element(widths.begin() + static_cast<std::ptrdiff_t>(whole), widths.end());
    if (*widest <= kLeastCut) return;
    --*widest;
  }
}

std::string cutTo(std::size_t width, const std::string& cell) {
  if (characterCount(cell) <= width) return cell;
  std::size_t at = 0;
  for (std::size_t kept = 0; kept + kCut.size() < width; ++kept) {
    at += std::max<std::size_t>(characterLength(cell, at), 1);
  }
  return cell.substr(0, at).append(kCut);
}

}  // namespace

bool isUtf8(std::string_view bytes) {
  std::size_t at = 0;
  while (at < bytes.size()) {
    const std::size_t length = characterLength(bytes, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::size_t characterCount(std::string_view text) {
  std::size_t count = 0;
  for (std::size_t at = 0; at < text.size(); ++count) {
    at += std::max<std::size_t>(characterLength(text, at), 1);
  }
  return count;
}

std::string escapeLine(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t at = 0; at < bytes.size();) at += appendEscaped(out, bytes, at);
  return out;
}

std::string valueOnOneLine(const std::vector<std::string>& value) {
  if (value.size() == 1) return escapeLine(value.front());
  std::string out = "[";
  for (const std::string& element : value) {
    if (out.size() > 1) out += ", ";
    out += quoted(element);
  }
  return out + ']';
}

std::optional<std::string> unescapeLine(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    if (text[at] != '\\') {
      out += text[at++];
      continue;
    }
    const std::size_t taken = appendUnescaped(out, text.substr(at));
    if (taken == 0) return std::nullopt;
    at += taken;
  }
  return out;
}

std::string base64(std::string_view bytes) {
  std::string out;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::size_t taken = std::min<std::size_t>(3, bytes.size() - at);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i)
      group = group << 8 | (i < taken ? byteAt(bytes, at + i) : 0);
    for (std::size_t i = 0; i < 4; ++i) {
      out += i <= taken ? kBase64Digits[group >> (18 - 6 * i) & 0x3f] : '=';
    }
  }
  return out;
}

// Written again and compared, so that no second text stands for the same bytes.
std::optional<std::string> fromBase64(std::string_view text) {
  std::string out;
  std::uint32_t group = 0;
  unsigned bits = 0;
  for (const char c : text.substr(0, text.find('='))) {
    const std::size_t digit = kBase64Digits.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    group = (group << 6 | static_cast<std::uint32_t>(digit)) & 0xffffff;
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    out += static_cast<char>(group >> bits & 0xff);
  }
  if (base64(out) != text) return std::nullopt;
  return out;
}

std::string alignColumns(const std::vector<std::vector<std::string>>& rows, std::size_t width,
                         std::size_t whole) {
  std::vector<std::size_t> widths = columnWidths(rows);
  if (width > 0) fitInto(width, whole, widths);
  std::string out;
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string cell = cutTo(widths[i], row[i]);
      out += cell;
      if (i + 1 < row.size()) out.append(widths[i] - characterCount(cell) + 2, ' ');
    }
    out += '\n';
  }
  return out;
}

}  // namespace AppCfgTool
