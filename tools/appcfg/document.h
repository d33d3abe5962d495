// Document: variables and their values as a file: what export writes and import reads.
//
// Shape:   one entry for each variable, in the order of the file. A value is a string, or an array
//          of strings for a list; an integer and true and false stand for the string of the same
//          look. In TOML
//            "network.eth[1].mtu" = 1500
//            "network.dns" = ["192.0.2.1", "192.0.2.2"]
//          where [network] with hostname = "x" below it names network.hostname as well; in JSON one
//          object, {"network.eth[1].mtu": 1500}.
// Bytes:   both forms hold text alone. A string that is no UTF-8 is the table or object
//          {base64 = "//4="}; in a key each such byte is \xNN, which no key can contain otherwise.
// Errors:  a text that is no document gives an Outcome with file and line. A value that no variable
//          can have (1.5, null, an array in an array) spoils its own entry alone.
// Threads: plain values and functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/appcfg/outcome.h"

namespace AppCfgTool {

enum class DocumentFormat { Toml, Json };

struct DocumentEntry {
  // How the value is written; of Number and Bool only what reads back as the same bytes.
  enum class Form { Text, Number, Bool, List };

  // As formatKey writes it.
  std::string key;
  Form form = Form::Text;
  std::vector<std::string> value;
  // What is wrong with the value; empty: nothing.
  std::string problem;
};

using Document = std::vector<DocumentEntry>;

// "toml", "json"; nothing for anything else.
std::optional<DocumentFormat> documentFormat(const std::string& name);

std::string toToml(const Document& document);
// One entry on each line, or all on one.
std::string toJsonDocument(const Document& document, bool onOneLine);

// What a text must be, if it is a document: JSON begins with a brace, TOML cannot.
DocumentFormat formatOf(std::string_view text);

// The name is for messages.
Outcome readDocument(std::string_view text, const std::string& name, DocumentFormat format,
                     Document& document);

// The halves of readDocument. Keys are as in the file.
Outcome readToml(std::string_view text, const std::string& name, Document& document);
Outcome readJson(std::string_view text, const std::string& name, Document& document);

// For entries of any other sort of value.
extern const char* const kNoValue;

}  // namespace AppCfgTool
