// import: the values of a document, written where they differ from the present ones.
//
//   read the document -> ask for the present values -> put apart what names no variable ->
//   (dry run, all or nothing: ask whether each difference would be accepted) -> write
//
// Nothing of the document is lost without a word: what is unknown is kept in a file of its own,
// which is written before the first change, and what is refused is told with its reason.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <list>
#include <optional>
#include <set>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "base/unique_fd.h"
#include "tools/appcfg/batch_read.h"
#include "tools/appcfg/document.h"
#include "tools/appcfg/new_file.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/progress.h"
#include "tools/appcfg/read_text.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

using AppConfig::formatKey;
using AppConfig::ProtobufMessageHelper;
using Base::UniqueFd;

// --- Files ---

// For its owner alone: values of an unknown variable may be anything.
Outcome writeText(const std::string& name, std::string_view text) {
  const UniqueFd file(::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file) return fileFailure("write", name, errno);
  while (!text.empty()) {
    const ssize_t written = ::write(file.get(), text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return fileFailure("write", name, errno);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

// --- What is to be done ---

struct Item {
  ConfigVar var;
  DocumentEntry entry;
  // Whether the role may read it: it may write all the same.
  bool readable = false;
  bool wasDefault = false;
  bool secret = false;
  std::vector<std::string> present;
  // How the change of it ended, or would end.
  Outcome outcome;
};

class Import {
 public:
  Import(Context& context, const Arguments& arguments);

  Outcome run();

 private:
  Outcome readItems();
  Outcome readPresent();
  void takePresent(Item& item, const ConfigIF::ReadRecord& record);
  void keepDifferent();
  void learnSecrets();
  Outcome tryAll();
  Outcome writeAll();
  Outcome change(Item& item, const std::vector<std::string>& value);
  Outcome restore(const Item& item);
  void restoreBefore(std::size_t end);
  Outcome keepUnknown();
  bool anyRefused() const;
  void printDifferences() const;
  void printRecord() const;
  Outcome summary() const;

  Context& context_;
  Session& session_;
  const std::string name_;
  const bool dryRun_;
  const bool allOrNothing_;
  const bool standardInput_;
  Progress progress_;
  std::string unknownFile_;
  std::optional<DocumentFormat> format_;
  Outcome usage_;

  // Those that exist and differ, once the present values are known.
  std::vector<Item> items_;
  Document unknown_;
  std::size_t unchanged_ = 0;
  std::size_t changed_ = 0;
  bool unknownKept_ = false;
  bool givenUp_ = false;
};

Import::Import(Context& context, const Arguments& arguments)
    : context_(context),
      session_(context.session),
      name_(arguments.one("FILE")),
      dryRun_(arguments.has("dry-run")),
      allOrNothing_(arguments.has("all-or-nothing")),
      standardInput_(name_ == "-"),
      progress_(context.output, "importing", 0),
      unknownFile_(arguments.one("unknown")),
      format_(documentFormat(arguments.one("format"))) {
  if (arguments.has("format") && !format_) usage_ = usageMistake("--format takes toml or json");
  if (unknownFile_.empty() && !standardInput_) unknownFile_ = name_ + ".unknown";
}

Outcome Import::readItems() {
  std::string text;
  Document document;
  const std::string shown = shownName(name_);
  Outcome read = readText(name_, text);
  if (!format_) format_ = formatOf(text);
  if (read.ok()) read = readDocument(text, shown, *format_, document);
  if (!read.ok()) return read;
  std::set<ConfigVar> seen;
  for (DocumentEntry& entry : document) {
    ConfigVar var("", 0, "", 0);
    if (!readKey(context_.settings, entry.key, var).ok()) {
      unknown_.push_back(std::move(entry));
      continue;
    }
    if (!seen.insert(var).second) {
      return failure(kExitFailed, shown + ": " + formatKey(var) + " stands in it twice");
    }
    items_.push_back({var, std::move(entry), false, false, false, {}, {}});
  }
  return {};
}

void Import::takePresent(Item& item, const ConfigIF::ReadRecord& record) {
  item.readable = record.error() == CommonIF::ERROR_NONE;
  item.wasDefault = record.is_default();
  item.present = stringsOf(record.values());
  if (record.error() == CommonIF::ERROR_NOT_FOUND) item.outcome.code = kExitNotFound;
}

Outcome Import::readPresent() {
  std::vector<ConfigVar> vars;
  for (const Item& item : items_) vars.push_back(item.var);
  std::vector<ConfigIF::ReadRecord> records;
  Outcome read = readTogether(session_, vars, records);
  for (std::size_t i = 0; i < records.size(); ++i) takePresent(items_[i], records[i]);
  return read;
}

void Import::keepDifferent() {
  std::vector<Item> different;
  for (Item& item : items_) {
    if (item.outcome.code == kExitNotFound) {
      unknown_.push_back(std::move(item.entry));
    } else if (item.readable && item.entry.problem.empty() && item.present == item.entry.value) {
      ++unchanged_;
    } else {
      different.push_back(std::move(item));
    }
  }
  items_ = std::move(different);
}

// What cannot be learnt is taken for secret: it is only about what is shown.
void Import::learnSecrets() {
  progress_.begin("looking for secrets", items_.size());
  for (Item& item : items_) {
    progress_.step();
    ConfigIF::ReadAttributesRsp response;
    const Outcome asked = session_.ask({"describe", formatKey(item.var)},
                                       ProtobufMessageHelper::getReadAttributesRequest(
                                           session_.client(), session_.role(), item.var),
                                       response);
    item.secret = !asked.ok() || response.attributes().secret();
  }
}

// Answers of the service about one variable leave the others to be tried; a service that is gone,
// or does not answer, would fail them all, one deadline after the other.
Outcome Import::tryAll() {
  progress_.begin("trying", items_.size());
  for (Item& item : items_) {
    progress_.step();
    const Purpose purpose{"set", formatKey(item.var)};
    if (!item.entry.problem.empty()) {
      item.outcome =
          failure(kExitInvalidValue, "cannot set " + purpose.subject + ": " + item.entry.problem);
      continue;
    }
    if (allOrNothing_ && !item.readable) {
      item.outcome = failure(kExitDenied, "cannot set " + purpose.subject +
                                              ": this role may not read it, so it could not be put "
                                              "back if another one fails");
      continue;
    }
    const std::list<std::string> value(item.entry.value.begin(), item.entry.value.end());
    ConfigIF::ValidateRsp response;
    Outcome answered = session_.exchange(purpose,
                                         ProtobufMessageHelper::getValidateRequest(
                                             session_.client(), session_.role(), item.var, value),
                                         response);
    if (!answered.ok()) return answered;
    item.outcome = session_.verdict(purpose, response.result());
  }
  return {};
}

Outcome Import::change(Item& item, const std::vector<std::string>& value) {
  const Purpose purpose{"set", formatKey(item.var)};
  ConfigIF::WriteRsp response;
  Outcome answered = session_.exchange(
      purpose,
      ProtobufMessageHelper::getWriteRequest(session_.client(), session_.role(), item.var,
                                             std::list<std::string>(value.begin(), value.end())),
      response);
  if (!answered.ok()) return answered;
  item.outcome = session_.verdict(purpose, response.result());
  if (item.outcome.ok()) response.result().flag() ? ++unchanged_ : ++changed_;
  return {};
}

Outcome Import::restore(const Item& item) {
  const Purpose purpose{"put back", formatKey(item.var)};
  if (item.wasDefault) {
    ConfigIF::ResetValueRsp response;
    return session_.ask(
        purpose,
        ProtobufMessageHelper::getResetValueRequest(session_.client(), session_.role(), item.var),
        response);
  }
  ConfigIF::WriteRsp response;
  const std::list<std::string> value(item.present.begin(), item.present.end());
  return session_.ask(
      purpose,
      ProtobufMessageHelper::getWriteRequest(session_.client(), session_.role(), item.var, value),
      response);
}

// Backwards, as values may depend on each other.
void Import::restoreBefore(std::size_t end) {
  while (end-- > 0) {
    const Outcome restored = restore(items_[end]);
    if (restored.ok()) {
      --changed_;
    } else {
      items_[end].outcome = restored;
    }
  }
}

Outcome Import::writeAll() {
  progress_.begin("importing", items_.size());
  for (std::size_t i = 0; i < items_.size(); ++i) {
    Item& item = items_[i];
    progress_.step();
    if (!item.entry.problem.empty()) {
      item.outcome = failure(kExitInvalidValue,
                             "cannot set " + formatKey(item.var) + ": " + item.entry.problem);
      continue;
    }
    Outcome answered = change(item, item.entry.value);
    if (!answered.ok()) {
      answered.reasons.push_back(std::to_string(changed_) + " values were changed before");
      return answered;
    }
    if (allOrNothing_ && !item.outcome.ok()) {
      givenUp_ = true;
      restoreBefore(i);
      return {};
    }
  }
  return {};
}

Outcome Import::keepUnknown() {
  if (unknown_.empty() || unknownFile_.empty()) return {};
  Document writable;
  std::copy_if(unknown_.begin(), unknown_.end(), std::back_inserter(writable),
               [](const DocumentEntry& entry) { return entry.problem.empty(); });
  if (writable.empty()) return {};
  const bool json = format_ == DocumentFormat::Json;
  Outcome kept = writeText(unknownFile_, json ? toJsonDocument(writable, false) : toToml(writable));
  unknownKept_ = kept.ok();
  if (!kept.ok()) kept.advice = "nothing was imported; name another file with --unknown";
  return kept;
}

bool Import::anyRefused() const {
  return std::any_of(items_.begin(), items_.end(),
                     [](const Item& item) { return !item.outcome.ok(); });
}

// --- What is told ---

const char* const kSecret = "(secret)";

std::string shownPresent(const Item& item) {
  if (!item.readable) return "(unreadable)";
  return item.secret ? kSecret : valueOnOneLine(item.present);
}

void Import::printDifferences() const {
  for (const Item& item : items_) {
    if (!item.outcome.ok()) continue;
    context_.output.line(formatKey(item.var) + ": " + shownPresent(item) + " -> " +
                         (item.secret ? kSecret : valueOnOneLine(item.entry.value)));
  }
}

Record recordOf(const Item& item) {
  Record record;
  record.text("key", formatKey(item.var));
  item.secret || !item.readable ? record.none("present") : record.list("present", item.present);
  item.secret || !item.entry.problem.empty() ? record.none("new")
                                             : record.list("new", item.entry.value);
  item.outcome.ok() ? record.none("error") : record.text("error", exitCodeName(item.outcome.code));
  return record.list("reasons", item.outcome.reasons);
}

void Import::printRecord() const {
  std::vector<Record> variables;
  for (const Item& item : items_) variables.push_back(recordOf(item));
  std::vector<Record> unknown;
  for (const DocumentEntry& entry : unknown_) {
    unknown.emplace_back();
    unknown.back().text("key", entry.key);
    entry.problem.empty() ? unknown.back().list("value", entry.value)
                          : unknown.back().none("value");
  }
  Record record;
  record.flag("dry_run", dryRun_).count("changed", changed_).count("unchanged", unchanged_);
  record.records("variables", std::move(variables)).records("unknown", std::move(unknown));
  unknownKept_ ? record.text("unknown_file", unknownFile_) : record.none("unknown_file");
  context_.output.record(record);
}

std::string joined(const Outcome& outcome) {
  std::string text = outcome.text;
  for (const std::string& reason : outcome.reasons) text += "; " + reason;
  return text;
}

Outcome Import::summary() const {
  const std::string shown = shownName(name_);
  Outcome outcome;
  for (const Item& item : items_) {
    if (item.outcome.ok()) continue;
    if (outcome.ok()) outcome.code = item.outcome.code;
    outcome.reasons.push_back(joined(item.outcome));
  }
  for (const DocumentEntry& entry : unknown_) {
    outcome.code = kExitNotFound;
    const bool kept = unknownKept_ || dryRun_ || !unknownFile_.empty();
    outcome.reasons.push_back("there is no variable " + entry.key +
                              (kept ? "" : ", whose value was " + valueOnOneLine(entry.value)));
    if (!entry.problem.empty()) {
      outcome.reasons.push_back("nor can its value be kept: " + entry.problem);
    }
  }
  if (outcome.ok()) return outcome;
  outcome.text = (dryRun_    ? "not all of " + shown + " would be imported"
                  : givenUp_ ? "nothing of " + shown + " was imported"
                             : "not all of " + shown + " was imported");
  if (unknownKept_) outcome.advice = "what is unknown is kept in " + unknownFile_;
  return outcome;
}

Outcome Import::run() {
  if (!usage_.ok()) return usage_;
  Outcome done = readItems();
  if (done.ok()) done = readPresent();
  if (!done.ok()) return done;
  keepDifferent();
  if (dryRun_ || context_.output.json()) learnSecrets();
  if (dryRun_ || allOrNothing_) done = tryAll();
  if (!done.ok()) return done;
  givenUp_ = allOrNothing_ && (anyRefused() || !unknown_.empty());
  if (!dryRun_ && !givenUp_) {
    done = keepUnknown();
    if (done.ok()) done = writeAll();
  }
  if (!done.ok()) return done;
  if (context_.output.json()) {
    printRecord();
  } else if (dryRun_) {
    printDifferences();
  }
  return summary();
}

Outcome runImport(Context& context, const Arguments& arguments) {
  return Import(context, arguments).run();
}

}  // namespace

Verb importVerb() {
  Verb verb;
  verb.name = "import";
  verb.summary = "write the values of a file that export wrote";
  verb.example = "appcfg import network.toml --dry-run";
  verb.positionals = {{"FILE", "the file; - for standard input"}};
  verb.options = {
      {"dry-run", 'n', "", "change nothing; print a line for each value that would change"},
      {"all-or-nothing", 0, "", "change nothing unless every value is accepted"},
      {"format", 0, "FORMAT", "toml or json; the file tells when left out"},
      {"unknown", 0, "FILE", "where to keep what there is no variable for; FILE.unknown"},
  };
  verb.run = runImport;
  return verb;
}

}  // namespace AppCfgTool
