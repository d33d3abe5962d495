// watch: a line for each change, or a run of a program; wait: until a variable has a value.
//
// Both are ordinary applications of the library: facade, consumer handler, registration. The
// library enters a handler only after the service has taken the registration, so a notice that
// comes in between finds nobody to call. Therefore both read after they have registered: what a
// lost notice would have told is in that answer, and every later change has a notice. A notice may
// also tell what is known already, so it is news only when it differs from the last value printed.
//
// Notices do not say which namespace their variable is of, and a link of a namespace hears of
// variables without one as well. With a namespace, therefore, each notice is only the reason to
// read the variable under its full key.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <set>

#include "appconfig/core/key_notation.h"
#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/registration.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tools/appcfg/change_command.h"
#include "tools/appcfg/events.h"
#include "tools/appcfg/listing.h"
#include "tools/appcfg/meaning.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/refusal_teller.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"
#include "tools/appcfg/when_there.h"

namespace AppCfgTool {
namespace {

using AppConfig::AppCfgManager;
using AppConfig::formatKey;
using std::chrono::steady_clock;

using Value = std::vector<std::string>;

// The facade over the service and namespace asked for, once the session has its service. The primary
// is changed even where the local one would do, so that there is one way through.
void attachFacade(Context& context, std::int32_t nameSpace) {
  AppCfgManager::changePrimaryConfigService(nameSpace, context.settings.servicePrefix, "",
                                            &context.session.endpoint());
  AppCfgManager::getInstance()->setSecurityRole(context.settings.role);
}

Outcome readVariable(Session& session, const ConfigVar& var, Value& value) {
  ConfigIF::ReadRsp response;
  Outcome asked = session.ask(
      {"read", formatKey(var)},
      AppConfig::ProtobufMessageHelper::getReadRequest(session.client(), session.role(), var),
      response);
  value = stringsOf(response.values());
  return asked;
}

// The value that a notice is about; false when it is not about a variable of this namespace.
bool settleValue(Session& session, Change& change) {
  if (change.var.nameSpace() == 0) return true;
  return readVariable(session, change.var, change.value).ok();
}

// Lives as long as the process: the endpoint's thread may be calling it when the verb ends.
ChangeQueue& queueOf(std::int32_t nameSpace) {
  static ChangeQueue* const queue = new ChangeQueue(nameSpace);
  return *queue;
}

void print(Output& output, const ConfigVar& var, const Value& value) {
  if (!output.json()) return output.line(formatKey(var) + " = " + valueOnOneLine(value));
  Record record;
  output.record(record.text("key", formatKey(var)).list("value", value));
}

// --- watch ---

class Watch {
 public:
  // Without a command the changes are printed.
  Watch(Context& context, std::vector<Selection> selections, std::int32_t nameSpace,
        std::optional<ChangeCommand> command)
      : context_(context),
        selections_(std::move(selections)),
        nameSpace_(nameSpace),
        command_(std::move(command)),
        queue_(queueOf(nameSpace)) {}

  Outcome run(bool changesOnly);

 private:
  Outcome learnPresent();
  void printPresent();
  void registerAll();
  Outcome follow();
  void take(Change change);
  void takeAll();
  Outcome runCommand();
  bool isSelected(const ConfigVar& var) const;
  Waited waited() const { return {stop_.fd(), -1, context_.output.outFd(), {}}; }

  Context& context_;
  const std::vector<Selection> selections_;
  const std::int32_t nameSpace_;
  std::optional<ChangeCommand> command_;
  StopSignals stop_;
  ChangeQueue& queue_;
  // What the user has been shown, or knows without having been shown.
  std::map<ConfigVar, Value> known_;
};

bool Watch::isSelected(const ConfigVar& var) const {
  return std::any_of(selections_.begin(), selections_.end(),
                     [&var](const Selection& selection) { return selection.selects(var); });
}

Outcome Watch::learnPresent() {
  known_.clear();
  for (const Selection& selection : selections_) {
    Listing listing;
    Outcome listed = askWhenThere(context_, waited(), [&] {
      listing = {};
      return list(context_.session, selection, listing);
    });
    if (!listed.ok()) return listed;
    for (const ListedVariable& variable : listing.variables) {
      known_[variable.var] = stringsOf(variable.record.values());
    }
  }
  return {};
}

void Watch::printPresent() {
  for (const auto& [var, value] : known_) print(context_.output, var, value);
}

// A name is registered as a group: that covers the variable of this name as well as all below it.
// There is no registration for everything in the library, so everything is all outermost groups.
void Watch::registerAll() {
  std::set<std::string> names;
  for (const Selection& selection : selections_) {
    if (!selection.name().empty()) names.insert(selection.name());
  }
  if (names.empty()) {
    for (const auto& [var, value] : known_) {
      const std::string dotted = var.dottedName();
      names.insert(dotted.substr(0, dotted.find('.')));
    }
  }
  attachFacade(context_, nameSpace_);
  for (const std::string& name : names) registerHandler(name, &queue_);
}

void Watch::take(Change change) {
  if (!isSelected(change.var) || !settleValue(context_.session, change)) return;
  const auto [at, isNew] = known_.try_emplace(change.var, change.value);
  if (!isNew && at->second == change.value) return;
  at->second = std::move(change.value);
  if (command_) return command_->add(at->first, at->second);
  print(context_.output, at->first, at->second);
}

void Watch::takeAll() {
  for (Change& change : queue_.take()) take(std::move(change));
}

// What changes during a run is taken before the next one, which gets the newest value.
Outcome Watch::runCommand() {
  while (command_ && command_->isWaiting()) {
    Outcome ran = command_->runNext(stop_.fd());
    if (!ran.ok()) return ran;
    takeAll();
  }
  return {};
}

Outcome Watch::follow() {
  Waited forever = waited();
  forever.changesFd = queue_.wakeFd();
  RefusalTeller teller(context_);
  for (;;) {
    const WriteState state = context_.output.flush();
    if (state == WriteState::Failed) {
      return failure(kExitFailed,
                     std::string("cannot write to standard output: ") + std::strerror(errno));
    }
    if (state == WriteState::ReaderGone || teller.waitForEvent(forever) != Event::Changes)
      return {};
    takeAll();
    Outcome ran = runCommand();
    if (ran.code == kExitNo) return {};
    if (!ran.ok()) return ran;
  }
}

// The first reading tells what there is to register for, the second what is known from then on.
// Notices before the second are older than it. answerNo is what askWhenThere says when the user
// ended it: no failure.
Outcome Watch::run(bool changesOnly) {
  Outcome learnt = learnPresent();
  if (learnt.ok()) {
    registerAll();
    static_cast<void>(queue_.take());
    learnt = learnPresent();
  }
  if (learnt.code == kExitNo) return {};
  if (!learnt.ok()) return learnt;
  if (!changesOnly && !command_) printPresent();
  return follow();
}

Outcome readSelections(const Settings& settings, const Arguments& arguments,
                       std::vector<Selection>& selections) {
  for (const std::string& text : arguments.all("NAME")) {
    Selection selection(settings);
    Outcome read = selection.read(text);
    if (!read.ok()) return read;
    selections.push_back(std::move(selection));
  }
  if (selections.empty()) selections.emplace_back(settings);
  return {};
}

// One link serves one namespace, and a process has one link to a service.
Outcome commonNameSpace(std::vector<Selection>& selections, std::int32_t& nameSpace) {
  nameSpace = selections.front().nameSpace().value_or(0);
  for (Selection& selection : selections) {
    if (selection.nameSpace().value_or(0) != nameSpace) {
      return usageMistake("these names are of different namespaces",
                          "watch each namespace with an appcfg of its own");
    }
    selection.keepTo(nameSpace);
  }
  return {};
}

std::optional<ChangeCommand> commandOf(Context& context, const Arguments& arguments) {
  if (!arguments.has("exec")) return std::nullopt;
  std::vector<std::string> words = arguments.all("exec");
  words.insert(words.end(), arguments.all(kPassedOn).begin(), arguments.all(kPassedOn).end());
  return ChangeCommand(context.output, std::move(words));
}

Outcome runWatch(Context& context, const Arguments& arguments) {
  std::vector<Selection> selections;
  std::int32_t nameSpace = 0;
  Outcome read = readSelections(context.settings, arguments, selections);
  if (read.ok()) read = commonNameSpace(selections, nameSpace);
  if (read.ok()) read = context.session.checkName({"watch", ""});
  if (!read.ok()) return read;
  Watch watch(context, std::move(selections), nameSpace, commandOf(context, arguments));
  return watch.run(arguments.has("changes-only"));
}

// --- wait ---

struct Awaited {
  ConfigVar var;
  // Nothing given: anything but the first value.
  bool anyChange;
  Value value;
};

bool hasCome(Session& session, const Awaited& awaited, const Value& first, const Value& now) {
  return awaited.anyChange ? now != first : isSameValue(session, awaited.var, now, awaited.value);
}

// As get prints it, for `state=$(appcfg wait system.state)`.
void printAwaited(Output& output, const ConfigVar& var, const Value& value) {
  if (output.json()) return print(output, var, value);
  for (const std::string& element : value) output.line(element);
}

Outcome tooLate(const Awaited& awaited) {
  const std::string key = formatKey(awaited.var);
  Outcome outcome = failure(
      kExitTimedOut, awaited.anyChange
                         ? key + " did not change in time"
                         : key + " did not become " + valueOnOneLine(awaited.value) + " in time");
  outcome.subject = key;
  return outcome;
}

bool isAbout(const Change& change, const ConfigVar& var) {
  const std::less<ConfigVar> less;
  return !less(change.var, var) && !less(var, change.var);
}

bool comesWith(Context& context, const Awaited& awaited, const Value& first, Change& change) {
  return isAbout(change, awaited.var) && settleValue(context.session, change) &&
         hasCome(context.session, awaited, first, change.value);
}

Outcome awaitChange(Context& context, const Awaited& awaited, const Value& first,
                    const Deadline& deadline) {
  ChangeQueue& queue = queueOf(awaited.var.nameSpace());
  RefusalTeller teller(context);
  while (teller.waitForEvent({-1, queue.wakeFd(), -1, deadline}) == Event::Changes) {
    for (Change& change : queue.take()) {
      if (!comesWith(context, awaited, first, change)) continue;
      printAwaited(context.output, change.var, change.value);
      return {};
    }
  }
  return tooLate(awaited);
}

Outcome runWait(Context& context, const Arguments& arguments) {
  Awaited awaited{ConfigVar("", 0, "", 0), !arguments.has("VALUE"), arguments.all("VALUE")};
  Outcome read = readKey(context.settings, arguments.one("KEY"), awaited.var);
  if (read.ok()) read = context.session.checkName({"wait for", formatKey(awaited.var)});
  if (!read.ok()) return read;
  Deadline deadline;
  if (context.settings.timeout) deadline = steady_clock::now() + *context.settings.timeout;
  const auto readNow = [&](Value& value) {
    return askWhenThere(context, {-1, -1, -1, deadline},
                        [&] { return readVariable(context.session, awaited.var, value); });
  };
  Value first;
  Outcome asked = readNow(first);
  if (!asked.ok()) return asked;
  Value now = first;
  if (awaited.anyChange || !hasCome(context.session, awaited, first, first)) {
    attachFacade(context, awaited.var.nameSpace());
    registerHandler(awaited.var.group(), awaited.var.name(), &queueOf(awaited.var.nameSpace()));
    asked = readNow(now);
    if (!asked.ok()) return asked;
    if (!hasCome(context.session, awaited, first, now))
      return awaitChange(context, awaited, first, deadline);
  }
  printAwaited(context.output, awaited.var, now);
  return {};
}

}  // namespace

Verb watchVerb() {
  Verb verb;
  verb.name = "watch";
  verb.summary = "print values and, line by line, each change of them";
  verb.example = "appcfg watch network 'sensors.temp[2]'";
  verb.positionals = {{"NAME", "a group or variable; everything when left out", 0, kAnyNumber}};
  verb.options = {{"changes-only", 'c', "", "leave out the present values"},
                  {"exec", 0, "CMD",
                   "run CMD for each change, with APPCFG_KEY and APPCFG_VALUE; print nothing"}};
  verb.passesOn = "exec";
  verb.run = runWatch;
  return verb;
}

Verb waitVerb() {
  Verb verb;
  verb.name = "wait";
  verb.summary = "wait until a variable has a value, or changes, and print it";
  verb.example = "appcfg wait system.state ready --timeout 60";
  verb.positionals = {{"KEY", "the variable"},
                      {"VALUE", "elements to wait for; any change when left out", 0, kAnyNumber}};
  verb.run = runWait;
  return verb;
}

}  // namespace AppCfgTool
