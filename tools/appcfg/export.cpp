// export: variables and their values as a document that import reads.
//
// The service's listing, page by page, becomes one document, which is printed when it is whole.
#include "appconfig/core/key_notation.h"
#include "tools/appcfg/document.h"
#include "tools/appcfg/listing.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using Form = DocumentEntry::Form;

Form formOf(ConfigIF::ValueType type) {
  switch (type) {
    case ConfigIF::VALUE_LIST:
      return Form::List;
    case ConfigIF::VALUE_INT:
      return Form::Number;
    case ConfigIF::VALUE_BOOL:
      return Form::Bool;
    default:
      return Form::Text;
  }
}

Outcome readFormat(const Context& context, const Arguments& arguments, DocumentFormat& format) {
  const bool json = context.settings.json;
  format = json ? DocumentFormat::Json : DocumentFormat::Toml;
  if (!arguments.has("format")) return {};
  const auto named = documentFormat(arguments.one("format"));
  if (!named) return usageMistake("--format takes toml or json");
  if (json && *named != format) return usageMistake("--json writes JSON: --format toml cannot be");
  format = *named;
  return {};
}

void print(Output& output, const Document& document, DocumentFormat format) {
  output.bytes(format == DocumentFormat::Json ? toJsonDocument(document, output.json())
                                              : toToml(document));
}

Outcome runExport(Context& context, const Arguments& arguments) {
  DocumentFormat format = DocumentFormat::Toml;
  Selection selection(context.settings);
  Outcome read = readFormat(context, arguments, format);
  if (read.ok() && arguments.has("PREFIX")) read = selection.read(arguments.one("PREFIX"));
  if (!read.ok()) return read;
  Listing listing;
  Progress progress(context.output, "exporting", 0);
  Outcome listed = list(context.session, selection, listing, &progress);
  if (!listed.ok()) return listed;
  Document document;
  std::size_t secrets = 0;
  for (const ListedVariable& variable : listing.variables) {
    const ConfigIF::ListRecord& record = variable.record;
    if (record.is_default() && arguments.has("changed-only")) continue;
    if (record.secret() && !arguments.has("secrets")) {
      ++secrets;
      continue;
    }
    document.push_back({AppConfig::formatKey(variable.var), formOf(record.type()),
                        stringsOf(record.values()), ""});
  }
  print(context.output, document, format);
  if (listing.hidden > 0) {
    context.output.note(std::to_string(listing.hidden) +
                        " more are hidden from this role: see --role");
  }
  if (secrets > 0) {
    context.output.note(std::to_string(secrets) + " more are secret: see --secrets");
  }
  return {};
}

}  // namespace

Verb exportVerb() {
  Verb verb;
  verb.name = "export";
  verb.summary = "print variables and their values as a file for import";
  verb.example = "appcfg export network > network.toml";
  verb.positionals = {{"PREFIX", "a group or variable, as for list", 0, 1}};
  verb.options = {
      {"format", 0, "FORMAT", "toml or json; toml when left out, json with --json"},
      {"changed-only", 'c', "", "leave out what has its default value"},
      {"secrets", 0, "", "also the values of secret variables"},
  };
  verb.run = runExport;
  return verb;
}

}  // namespace AppCfgTool
