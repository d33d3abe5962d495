// Files that `appcfg import` is given, in both formats: read, written again, and imported while no
// service answers, which is as far as the file alone decides.
#include <algorithm>

#include "fuzz/files.h"
#include "fuzz/input.h"
#include "tools/appcfg/document.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/verbs.h"

namespace {

using namespace AppCfgTool;
using Fuzz::require;

bool same(const DocumentEntry& a, const DocumentEntry& b) {
  const auto isList = [](const DocumentEntry& entry) {
    return entry.form == DocumentEntry::Form::List;
  };
  return a.key == b.key && a.value == b.value && isList(a) == isList(b);
}

void readBack(const std::string& text, DocumentFormat format, const Document& document) {
  Document again;
  const Outcome read = readDocument(text, "written", format, again);
  require(read.ok(), "a written document is read", read.text + '\n' + text);
  require(std::equal(document.begin(), document.end(), again.begin(), again.end(), same),
          "a written document reads as what was written", text);
}

void readText(std::string_view text, DocumentFormat format) {
  Document document;
  const Outcome read = readDocument(text, "some.file", format, document);
  if (!read.ok()) {
    const bool tells =
        read.text.compare(0, 10, "some.file:") == 0 && read.text.find('\n') == std::string::npos;
    return require(tells, "a refusal is one line that begins with the file", read.text);
  }
  // An entry whose value no variable can have is reported and not written.
  document.erase(std::remove_if(document.begin(), document.end(),
                                [](const DocumentEntry& entry) { return !entry.problem.empty(); }),
                 document.end());
  readBack(toJsonDocument(document, false), DocumentFormat::Json, document);
  readBack(toJsonDocument(document, true), DocumentFormat::Json, document);
  // TOML cannot hold a key twice.
  const auto name = [](const DocumentEntry& entry) { return entry.key; };
  std::vector<std::string> keys;
  std::transform(document.begin(), document.end(), std::back_inserter(keys), name);
  std::sort(keys.begin(), keys.end());
  if (std::adjacent_find(keys.begin(), keys.end()) != keys.end()) return;
  readBack(toToml(document), DocumentFormat::Toml, document);
}

void import(const Fuzz::Files& files, const Verb& verb) {
  Settings settings;
  settings.runtimeDir = files.path("nobody");
  settings.timeout = std::chrono::milliseconds(1000);
  Session session(settings);
  Output output(true);
  Context context{settings, session, output};
  Arguments arguments;
  arguments.put("FILE", {files.path("file")});
  const Outcome outcome = verb.run(context, arguments);
  require(outcome.ok() || !outcome.text.empty(), "a failure says what happened");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Files files;
  static const Verb verb = importVerb();
  Fuzz::Input input(data, size);
  const std::string_view text = input.rest();
  readText(text, DocumentFormat::Toml);
  readText(text, DocumentFormat::Json);
  files.clear();
  files.write("file", text);
  import(files, verb);
  return 0;
}
