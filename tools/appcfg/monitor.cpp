// monitor: a line for each request, answer, notice, question and client, as they come.
//
// The service is asked for all of it once: the endpoint repeats the request when the service comes
// back.
#include <cerrno>
#include <cstring>
#include <ctime>

#include "appconfig/core/key_notation.h"
#include "platform/schema/message_ids.h"
#include "tools/appcfg/listing.h"
#include "tools/appcfg/monitor_queue.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/refusal_teller.h"
#include "tools/appcfg/selection.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/text.h"
#include "tools/appcfg/verbs.h"
#include "tools/appcfg/when_there.h"

namespace AppCfgTool {
namespace {

const char* wordOf(ConfigIF::MonitorEvent event) {
  switch (event) {
    case ConfigIF::MONITOR_RESPONSE:
      return "response";
    case ConfigIF::MONITOR_NOTICE:
      return "notice";
    case ConfigIF::MONITOR_QUESTION:
      return "question";
    case ConfigIF::MONITOR_ANSWER:
      return "answer";
    case ConfigIF::MONITOR_CLIENT_CAME:
      return "came";
    case ConfigIF::MONITOR_CLIENT_WENT:
      return "went";
    case ConfigIF::MONITOR_REQUEST:
      break;
  }
  return "request";
}

bool hasOutcome(const ConfigIF::MonitorNtfy& event) {
  return event.event() == ConfigIF::MONITOR_RESPONSE || event.event() == ConfigIF::MONITOR_ANSWER;
}

// A request may be about everything below a name, which is no key.
std::string keyText(const ConfigIF::Inst& inst) {
  const ConfigVar var = keyOf(inst);
  return var.group().empty() ? var.name() : AppConfig::formatKey(var);
}

const char* errorName(const ConfigIF::MonitorNtfy& event) {
  return event.error() == CommonIF::ERROR_NONE ? "ok" : exitCodeName(exitCodeOf(event.error()));
}

// "14:03:07.000250", local time.
std::string timeText(std::uint64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
  std::tm parts{};
  ::localtime_r(&seconds, &parts);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%H:%M:%S.", &parts);
  const std::string fraction = std::to_string(1000000 + microseconds % 1000000);
  return std::string(text, length) + fraction.substr(1);
}

std::string lineOf(const ConfigIF::MonitorNtfy& event) {
  std::string line = timeText(event.time_us()) + ' ' + escapeLine(event.client()) + '[' +
                     std::to_string(event.pid()) + "] " + wordOf(event.event());
  if (event.has_message()) line += ' ' + escapeLine(event.message());
  if (event.has_inst()) line += ' ' + escapeLine(keyText(event.inst()));
  if (event.masked()) {
    line += " = (masked)";
  } else if (event.values_size() > 0) {
    line += " = " + valueOnOneLine(stringsOf(event.values()));
  }
  if (hasOutcome(event)) line += std::string(": ") + errorName(event);
  if (event.has_text()) line += ": " + escapeLine(event.text());
  return line;
}

Record recordOf(const ConfigIF::MonitorNtfy& event) {
  Record record;
  record.count("time_us", event.time_us()).text("event", wordOf(event.event()));
  record.text("client", event.client()).count("pid", event.pid());
  event.has_message() ? record.text("message", event.message()) : record.none("message");
  event.has_inst() ? record.text("key", keyText(event.inst())) : record.none("key");
  event.masked() ? record.none("value") : record.list("value", stringsOf(event.values()));
  record.flag("masked", event.masked());
  hasOutcome(event) ? record.text("error", errorName(event)) : record.none("error");
  return event.has_text() ? record.text("text", event.text()) : record.none("text");
}

// Lives as long as the process: the endpoint's thread may be calling it when the verb ends.
MonitorQueue& queue() {
  static MonitorQueue* const queue = new MonitorQueue;
  return *queue;
}

// The name of a group above what is selected concerns it as well: all below is reset, say.
bool concerns(const Selection& selection, const ConfigVar& var) {
  const std::string above = (var.group().empty() ? var.name() : var.dottedName()) + '.';
  return selection.selects(var) || selection.name().compare(0, above.size(), above) == 0;
}

class Monitor {
 public:
  Monitor(Context& context, Selection selection)
      : context_(context), selection_(std::move(selection)) {}

  Outcome run();

 private:
  Outcome askForLife();
  Outcome find();
  Outcome begin();
  Outcome follow();
  void print(const MonitorQueue::Taken& taken);

  Context& context_;
  const Selection selection_;
  StopSignals stop_;
};

Outcome Monitor::askForLife() {
  Session& session = context_.session;
  ConfigIF::StatusReq request;
  request.set_client_name(session.client());
  request.set_role(session.role());
  ConfigIF::StatusRsp response;
  return session.exchange({"monitor", session.serviceName()}, request, response);
}

// A name that nothing has is a slip: nobody would ever be seen. What only the role may not see is
// shown without its values. The answer also settles which service it is.
Outcome Monitor::find() {
  const Waited waited{stop_.fd(), -1, context_.output.outFd(), {}};
  return askWhenThere(context_, waited, [&]() -> Outcome {
    if (selection_.name().empty()) return askForLife();
    Listing listing;
    Outcome listed = list(context_.session, selection_, listing);
    return listed.code == kExitDenied ? Outcome() : listed;
  });
}

// Receivers come before the request, so that nothing is told before there is one.
Outcome Monitor::begin() {
  Session& session = context_.session;
  Outcome found = find();
  if (!found.ok()) return found;
  const std::uint32_t id = PlatformSchema::messageIdOf(ConfigIF::MonitorNtfy());
  const MSG_Callback table[] = {{&MonitorQueue::receive, &queue(), id, id, 0}, {}};
  session.endpoint().addHandlers(table);
  session.endpoint().addRemoteEndpoint(session.serviceName(), -1);
  ConfigIF::MonitorReq request;
  request.set_client_name(session.client());
  request.set_role(session.role());
  if (!selection_.name().empty()) request.set_prefix(selection_.name());
  return askWhenThere(context_, {stop_.fd(), -1, context_.output.outFd(), {}}, [&] {
    ConfigIF::MonitorRsp response;
    return session.ask({"monitor", session.serviceName()}, request, response);
  });
}

// The service selects by name; instances and namespaces are left to this side.
void Monitor::print(const MonitorQueue::Taken& taken) {
  Output& output = context_.output;
  for (const ConfigIF::MonitorNtfy& event : taken.events) {
    if (event.has_inst() && !concerns(selection_, keyOf(event.inst()))) continue;
    output.json() ? output.record(recordOf(event)) : output.line(lineOf(event));
  }
  if (taken.dropped > 0) output.note(std::to_string(taken.dropped) + " events were lost here");
}

Outcome Monitor::follow() {
  const Waited forever{stop_.fd(), queue().wakeFd(), context_.output.outFd(), {}};
  RefusalTeller teller(context_);
  for (;;) {
    const WriteState state = context_.output.flush();
    if (state == WriteState::Failed) {
      return failure(kExitFailed,
                     std::string("cannot write to standard output: ") + std::strerror(errno));
    }
    if (state == WriteState::ReaderGone || teller.waitForEvent(forever) != Event::Changes)
      return {};
    print(queue().take());
  }
}

Outcome Monitor::run() {
  Outcome begun = begin();
  if (begun.code == kExitNo) return {};
  return begun.ok() ? follow() : begun;
}

Outcome runMonitor(Context& context, const Arguments& arguments) {
  Selection selection(context.settings);
  Outcome read;
  if (arguments.has("PREFIX")) read = selection.read(arguments.one("PREFIX"));
  if (read.ok()) read = context.session.checkName({"monitor", context.session.serviceName()});
  return read.ok() ? Monitor(context, std::move(selection)).run() : read;
}

}  // namespace

Verb monitorVerb() {
  Verb verb;
  verb.name = "monitor";
  verb.summary = "print, live, who asks what and who is told what";
  verb.example = "appcfg monitor network";
  verb.positionals = {{"PREFIX", "a group or variable, as for list", 0, 1}};
  verb.run = runMonitor;
  return verb;
}

}  // namespace AppCfgTool
