// Writing documents, and what both formats have in common. They are written by hand rather than by
// the libraries that read them, so that both look alike. Reading is document_toml.cpp and
// document_json.cpp.
#include "tools/appcfg/document.h"

#include <charconv>
#include <cstdint>

#include "tools/appcfg/text.h"

namespace AppCfgTool {
namespace {

using Form = DocumentEntry::Form;

// Any control character as \u00NN: fewer rules than there are short escapes, and right in both
// formats.
std::string quotedText(std::string_view text) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (const char c : text) {
    const unsigned byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (byte < 0x20 || byte == 0x7f) {
      out += "\\u00";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xf];
    } else {
      out += c;
    }
  }
  return out + '"';
}

std::string element(std::string_view bytes, DocumentFormat format) {
  if (isUtf8(bytes)) return quotedText(bytes);
  const char* const begin = format == DocumentFormat::Toml ? "{ base64 = \"" : "{\"base64\": \"";
  return begin + base64(bytes) + (format == DocumentFormat::Toml ? "\" }" : "\"}");
}

bool isPlainNumber(const std::string& text) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end && std::to_string(number) == text;
}

bool isPlain(const DocumentEntry& entry) {
  if (entry.form == Form::Number) return isPlainNumber(entry.value[0]);
  return entry.form == Form::Bool && (entry.value[0] == "true" || entry.value[0] == "false");
}

std::string valueText(const DocumentEntry& entry, DocumentFormat format) {
  if (entry.form != Form::List && entry.value.size() == 1) {
    return isPlain(entry) ? entry.value[0] : element(entry.value[0], format);
  }
  std::string out = "[";
  for (const std::string& bytes : entry.value) {
    if (out.size() > 1) out += ", ";
    out += element(bytes, format);
  }
  return out + ']';
}

std::string keyText(const DocumentEntry& entry) { return quotedText(escapeLine(entry.key)); }

}  // namespace

const char* const kNoValue =
    "a value is a string, an integer, true, false, {base64}, or an array of these";

std::optional<DocumentFormat> documentFormat(const std::string& name) {
  if (name == "toml") return DocumentFormat::Toml;
  if (name == "json") return DocumentFormat::Json;
  return std::nullopt;
}

std::string toToml(const Document& document) {
  std::string out;
  for (const DocumentEntry& entry : document) {
    out += keyText(entry) + " = " + valueText(entry, DocumentFormat::Toml) + '\n';
  }
  return out;
}

std::string toJsonDocument(const Document& document, bool onOneLine) {
  const char* const indentation = onOneLine ? "" : "\n  ";
  std::string out = "{";
  for (const DocumentEntry& entry : document) {
    if (out.size() > 1) out += onOneLine ? ", " : ",";
    out += indentation + keyText(entry) + ": " + valueText(entry, DocumentFormat::Json);
  }
  return out + (onOneLine || document.empty() ? "}\n" : "\n}\n");
}

DocumentFormat formatOf(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  const bool brace = first != std::string_view::npos && text[first] == '{';
  return brace ? DocumentFormat::Json : DocumentFormat::Toml;
}

Outcome readDocument(std::string_view text, const std::string& name, DocumentFormat format,
                     Document& document) {
  Outcome read = format == DocumentFormat::Json ? readJson(text, name, document)
                                                : readToml(text, name, document);
  for (DocumentEntry& entry : document) {
    if (auto key = unescapeLine(entry.key)) entry.key = std::move(*key);
  }
  return read;
}

}  // namespace AppCfgTool
