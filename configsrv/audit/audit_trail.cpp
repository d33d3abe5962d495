// Makes the records; AuditFile writes them.
//
// The record of a change is made before the commit, because the store keeps it in the same commit.
// Only its revision is missing then, so that field comes last: changeCommitted() and repair()
// append it. A visitor (Fields) writes what each kind of change was from and to, and is the one
// place that masks.
#include "configsrv/audit/audit_trail.h"

#include <sys/time.h>

#include <ctime>
#include <list>
#include <vector>

#include "appconfig/core/key_notation.h"
#include "appconfig/core/role_names.h"
#include "configsrv/audit/internal/audit_file.h"
#include "configsrv/audit/internal/audit_search.h"
#include "configsrv/audit/internal/json_object.h"
#include "configsrv/model/model.h"

namespace ConfigSrv {
namespace {

using AppConfig::roleName;
using AppConfig::SecurityRole;
using Values = std::vector<std::string>;

// UTC, ISO 8601, in milliseconds.
std::string now() {
  timeval time{};
  ::gettimeofday(&time, nullptr);
  tm parts{};
  ::gmtime_r(&time.tv_sec, &parts);
  char text[40];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::string milliseconds = std::to_string(time.tv_usec / 1000);
  milliseconds.insert(0, 3 - milliseconds.size(), '0');
  return std::string(text, length) + '.' + milliseconds + 'Z';
}

const char* outcomeName(const ChangeOutcome& outcome) {
  switch (outcome.code) {
    case eErrNone:
      return outcome.unchanged ? "unchanged" : "changed";
    case eErrDenied:
      return "denied";
    case eErrNotFound:
      return "not-found";
    case eErrReadOnly:
      return "read-only";
    case eErrInvalidValue:
      return "invalid-value";
    case eErrVetoed:
      return "vetoed";
    case eErrUnavailable:
      return "unavailable";
    case eErrTimedOut:
      return "timed-out";
    case eErrConflict:
      return "conflict";
    case eErrLimit:
      return "limit";
    case eErrStorage:
      return "not-stored";
    default:
      return "failed";
  }
}

template <typename Strings>
Values valuesOf(const Strings& strings, bool& cut) {
  Values values;
  std::size_t left = AuditTrail::kMaxValueBytes;
  for (const std::string& string : strings) {
    values.push_back(string.substr(0, left));
    left -= values.back().size();
    // An empty element costs a byte, so that a list of nothing but those ends as well.
    left -= left > 0 ? 1 : 0;
    if (values.back().size() == string.size() && left > 0) continue;
    cut = cut || values.size() < strings.size() || values.back().size() < string.size();
    break;
  }
  return values;
}

JsonObject rolesOf(SecurityRole read, SecurityRole write) {
  JsonObject roles;
  roles.add("read", roleName(read)).add("write", roleName(write));
  return roles;
}

// One change as fields of a record; each kind says what it is and adds "old" and "new".
class Fields {
 public:
  // A null variable, or a secret one, leaves both out.
  Fields(JsonObject& record, const Variable* variable)
      : record_(record),
        variable_(variable),
        shown_(variable != nullptr && !variable->shape().secret) {}

  void operator()(const StoreChange::SetValue& set) {
    record_.add("action", "set");
    addValues([&] { return valuesOf(variable_->value(), cut_); },
              [&] { return valuesOf(set.value, cut_); });
  }
  void operator()(const StoreChange::ResetValue&) {
    record_.add("action", "reset");
    addValues([&] { return valuesOf(variable_->value(), cut_); },
              [&] { return valuesOf(variable_->shape().defaultValue, cut_); });
  }
  void operator()(const StoreChange::SetOptions& set) {
    record_.add("action", "set-options");
    addOptions([&] { return set.options ? *set.options : variable_->options(); },
               [&] { return set.defaultIndex.value_or(variable_->defaultIndex()); });
  }
  void operator()(const StoreChange::SetAccess& set) {
    record_.add("action", "set-access");
    if (variable_ == nullptr) return addMasked();
    const auto chosen = [](const std::optional<int>& role, SecurityRole present) {
      return role ? static_cast<SecurityRole>(*role) : present;
    };
    addRoles(chosen(set.readRole, variable_->readRole()),
             chosen(set.writeRole, variable_->writeRole()));
  }
  void operator()(const StoreChange::ResetAttributes&) {
    record_.add("action", "reset-attributes");
    if (variable_ == nullptr) return addMasked();
    addRoles(variable_->shape().readRole, variable_->shape().writeRole);
  }

 private:
  template <typename Old, typename New>
  void addValues(const Old& before, const New& after) {
    if (!shown_) return addMasked();
    record_.add("old", before()).add("new", after());
    if (cut_) record_.addTrue("cut");
  }
  template <typename Options, typename Index>
  void addOptions(const Options& options, const Index& index) {
    if (!shown_) return addMasked();
    JsonObject before;
    JsonObject after;
    before.add("options", valuesOf(variable_->options(), cut_));
    before.add("default-index", std::uint64_t{variable_->defaultIndex()});
    after.add("options", valuesOf(options(), cut_)).add("default-index", std::uint64_t{index()});
    record_.add("old", before).add("new", after);
    if (cut_) record_.addTrue("cut");
  }
  // Who may use a variable is no secret.
  void addRoles(SecurityRole read, SecurityRole write) {
    record_.add("old", rolesOf(variable_->readRole(), variable_->writeRole()));
    record_.add("new", rolesOf(read, write));
  }
  void addMasked() { record_.addNull("old").addNull("new").addTrue("masked"); }

  JsonObject& record_;
  const Variable* variable_;
  const bool shown_;
  bool cut_ = false;
};

void addWho(JsonObject& record, const Requester& by) {
  record.add("time", now());
  if (by.caller != nullptr) {
    record.add("uid", std::uint64_t{by.caller->uid}).add("gid", std::uint64_t{by.caller->gid});
    record.add("pid", static_cast<std::uint64_t>(by.caller->pid)).add("endpoint", by.caller->name);
  }
  record.add("client", by.clientName).add("role", roleName(by.role));
}

void addOutcome(JsonObject& record, const ChangeOutcome& outcome, bool mayBeQuoted) {
  record.add("outcome", outcomeName(outcome));
  if (outcome.revision != 0) record.add("revision", outcome.revision);
  if (outcome.ok() || !mayBeQuoted) return;
  record.add("reason", std::string_view(outcome.text).substr(0, AuditTrail::kMaxValueBytes));
}

std::string withRevision(const std::string& record, std::uint64_t revision) {
  return record + ",\"revision\":" + std::to_string(revision);
}

std::string lostLine(std::uint64_t lost) {
  JsonObject record;
  record.add("time", now()).add("lost", lost);
  return record.text();
}

}  // namespace

AuditTrail::AuditTrail(const std::string& file, const Log& log)
    : path_(file), log_(log), file_(std::make_unique<AuditFile>(file, log, lostLine)) {
  file_->open();
}
AuditTrail::~AuditTrail() = default;

std::string AuditTrail::changeCommits(const Requester& by, const StoreChange& wanted,
                                      const Variable& variable) {
  JsonObject record;
  addWho(record, by);
  record.add("variable", AppConfig::formatKey(wanted.key));
  std::visit(Fields(record, &variable), wanted.what);
  addOutcome(record, {}, true);
  std::string text = record.text();
  text.pop_back();  // Its revision is still to come.
  return text;
}

void AuditTrail::changeCommitted(const std::string& record, std::uint64_t revision) {
  file_->append(withRevision(record, revision) + '}');
  ++unsynced_;
  unsyncedBytes_ += record.size();
  lastRevision_ = revision;
}

bool AuditTrail::repair(const std::vector<StoredRecord>& records) {
  std::vector<std::string> lines;
  lines.reserve(records.size());
  for (const StoredRecord& record : records)
    lines.push_back(withRevision(record.text, record.revision));
  const std::vector<bool> there = linesInFile(path_, lines);
  std::uint64_t repaired = 0;
  bool all = true;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (there[i]) continue;
    if (file_->append(lines[i] + ",\"repaired\":true}"))
      ++repaired;
    else
      all = false;
  }
  if (repaired > 0)
    log_.warning(path_ + ": " + std::to_string(repaired) +
                 (repaired == 1 ? " record" : " records") +
                 " of changes that the last end of the service left out are appended now");
  // Lines that are in the file may be in the system's memory alone, so they are forced to the disk
  // too.
  const Base::Status<> outcome = file_->syncNow();
  synced(outcome);
  return all && outcome.ok();
}

std::shared_ptr<AuditSync> AuditTrail::takeUnsynced() {
  unsynced_ = 0;
  unsyncedBytes_ = 0;
  std::shared_ptr<AuditSync> taken = file_->takeUnsynced();
  taken->revision = lastRevision_;
  return taken;
}

void AuditTrail::synced(const Base::Status<>& outcome) {
  if (outcome.ok()) return;
  log_.repeatable(LogLevel::Error, "audit sync",
                  path_ + ": the audit record cannot be forced to the disk: " + outcome.text +
                      "; a loss of power may cost the last records: check the disk");
}

void AuditTrail::changeEnds(const Requester& by, const StoreChange& wanted,
                            const Variable* variable, const ChangeOutcome& outcome) {
  JsonObject record;
  addWho(record, by);
  record.add("variable", AppConfig::formatKey(wanted.key));
  std::visit(Fields(record, variable), wanted.what);
  // The reason of a denial may be recorded even for a secret variable: it quotes no value.
  const bool isOpen = variable == nullptr || !variable->shape().secret;
  addOutcome(record, outcome, isOpen || outcome.code == eErrDenied);
  file_->append(record.text());
}

void AuditTrail::refusedBelow(const Requester& by, std::string_view action, const std::string& name,
                              const ChangeOutcome& outcome) {
  JsonObject record;
  addWho(record, by);
  record.add("variable", name.substr(0, kMaxValueBytes)).add("action", action);
  addOutcome(record, outcome, true);
  file_->append(record.text());
}

}  // namespace ConfigSrv
