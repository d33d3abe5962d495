// store copy, store restore: the whole store as a file, and back.
//
// The service makes what is copied, and checks what is put back; the files themselves are read and
// written here, with the rights of whoever calls. To restore, the copy is put beside the store
// first, under the name that the service looks for when it opens its store. Then the service is
// asked to do so now. Whatever goes wrong before that leaves the store as it was.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "base/unique_fd.h"
#include "tools/appcfg/new_file.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/store_file.h"
#include "tools/appcfg/verbs.h"

namespace AppCfgTool {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(30);
constexpr std::chrono::milliseconds kBetweenLooks(20);

template <class Request>
Request requestOf(const Session& session) {
  Request request;
  request.set_client_name(session.client());
  request.set_role(session.role());
  return request;
}

// The service's own words, which are about files here and not about values.
template <class Request, class Response>
Outcome askAboutStore(Session& session, const Purpose& purpose, Response& response) {
  Outcome asked = session.exchange(purpose, requestOf<Request>(session), response);
  const ConfigIF::ReturnMessage& result = response.result();
  if (!asked.ok() || result.error() == CommonIF::ERROR_NONE) return asked;
  const std::string why = result.messages_size() > 0 ? result.messages(0) : "it does not say why";
  return failure(exitCodeOf(result.error()),
                 "cannot " + purpose.action + ' ' + purpose.subject + ": " + why);
}

// --- copy ---

Outcome copySnapshot(const ConfigIF::StoreSnapshotRsp& made, NewFile& file) {
  StoreFile snapshot(made.file());
  Outcome copied = snapshot.open();
  if (copied.ok()) copied = file.take(snapshot.fd(), snapshot.path());
  if (copied.ok()) copied = file.finish();
  return copied;
}

// The name is taken first: a copy that has no place is not worth a snapshot.
Outcome runCopy(Context& context, const Arguments& arguments) {
  const std::string path = arguments.one("FILE");
  const bool force = arguments.has("force");
  NewFile file(path, force ? NewFile::Existing::Replace : NewFile::Existing::Keep);
  Outcome outcome = file.open();
  if (!outcome.ok()) return outcome;
  Session& session = context.session;
  ConfigIF::StoreSnapshotRsp made;
  outcome = askAboutStore<ConfigIF::StoreSnapshotReq>(
      session, {"copy the store of", session.serviceName()}, made);
  if (outcome.ok()) outcome = copySnapshot(made, file);
  if (!outcome.ok()) return outcome;
  if (context.output.json()) {
    Record record;
    record.text("file", path).count("revision", made.revision()).count("bytes", file.bytes());
    context.output.record(record);
  } else {
    context.output.line(path + ": revision " + std::to_string(made.revision()) + ", " +
                        std::to_string(file.bytes()) + " bytes");
  }
  return {};
}

// --- restore ---

// The user that has to read the copy: the store's, or, without a store, the directory's.
Outcome ownerOf(const std::string& store, struct stat& owner) {
  if (::stat(store.c_str(), &owner) == 0) return {};
  const std::string directory = fs::path(store).parent_path().string();
  if (errno == ENOENT && ::stat(directory.empty() ? "." : directory.c_str(), &owner) == 0)
    return {};
  return fileFailure("find", store, errno);
}

std::string waitingFile(const std::string& store) { return store + ".restore"; }

Outcome place(const std::string& copy, const std::string& store) {
  StoreFile from(copy);
  NewFile to(waitingFile(store), NewFile::Existing::Replace);
  struct stat owner {};
  Outcome outcome = from.open();
  if (outcome.ok()) outcome = ownerOf(store, owner);
  if (outcome.ok()) outcome = to.open();
  if (outcome.ok()) outcome = to.take(from.fd(), from.path());
  if (outcome.ok()) outcome = to.giveTo(owner.st_uid, owner.st_gid);
  if (outcome.ok()) outcome = to.finish();
  return outcome;
}

// What was set aside when a store was replaced, without the files beside it.
std::set<std::string> replacedStores(const std::string& store) {
  std::set<std::string> names;
  const fs::path path(store);
  const std::string start = path.filename().string() + ".replaced-";
  std::error_code error;
  for (fs::directory_iterator entry(path.parent_path(), error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    const bool isBeside = name.find('-', start.size()) != std::string::npos;
    if (name.compare(0, start.size(), start) == 0 && !isBeside)
      names.insert(entry->path().string());
  }
  return names;
}

bool isThere(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

Outcome askStatus(Session& session, const Purpose& purpose, ConfigIF::StatusRsp& status) {
  return session.ask(purpose, requestOf<ConfigIF::StatusReq>(session), status);
}

// The copy is gone from its place as soon as the service has opened its store.
Outcome waitForService(Context& context, const std::string& store) {
  const auto deadline = Clock::now() + context.settings.timeout.value_or(kPatience);
  ConfigIF::StatusRsp status;
  Outcome asked;
  do {
    if (!isThere(waitingFile(store))) {
      asked = askStatus(context.session, {"restore the store of", context.session.serviceName()},
                        status);
      if (asked.ok() || asked.code != kExitUnreachable) return asked;
    }
    std::this_thread::sleep_for(kBetweenLooks);
  } while (Clock::now() < deadline);
  return failure(
      kExitTimedOut, "the service has the copy and is not back yet",
      "its log says why; the copy is " + waitingFile(store) + " until the service has taken it");
}

void printRestored(Output& output, const std::string& store, const std::string& kept,
                   const ConfigIF::StoreRestoreRsp& answer) {
  if (output.json()) {
    Record record;
    record.text("store", store).count("revision", answer.revision());
    record.count("revision_before", answer.revision_before());
    kept.empty() ? record.none("kept") : record.text("kept", kept);
    return output.record(record);
  }
  output.line(store + ": revision " + std::to_string(answer.revision()) + " takes the place of " +
              std::to_string(answer.revision_before()));
  if (!kept.empty()) output.line("the store so far is kept as " + kept);
}

Outcome restoreRunning(Context& context, const std::string& copy) {
  Session& session = context.session;
  const Purpose purpose{"restore", copy};
  ConfigIF::StatusRsp status;
  Outcome outcome = askStatus(session, purpose, status);
  if (!outcome.ok()) return outcome;
  const std::string& store = status.store_file();
  if (!fs::path(store).is_absolute())
    return failure(kExitFailed, "the service does not say where its store is: \"" + store + "\"",
                   "stop the service and use --store");
  outcome = place(copy, store);
  if (!outcome.ok()) return outcome;
  const std::set<std::string> before = replacedStores(store);
  ConfigIF::StoreRestoreRsp answer;
  outcome = askAboutStore<ConfigIF::StoreRestoreReq>(session, purpose, answer);
  if (!outcome.ok()) {
    ::unlink(waitingFile(store).c_str());
    return outcome;
  }
  outcome = waitForService(context, store);
  if (!outcome.ok()) return outcome;
  std::string kept;
  for (const std::string& name : replacedStores(store)) {
    if (before.count(name) == 0) kept = name;
  }
  printRestored(context.output, store, kept, answer);
  return {};
}

// Two that write one directory would be in each other's way.
Outcome checkNotInUse(const std::string& store) {
  const std::string lock = store + ".lock";
  const Base::UniqueFd fd(::open(lock.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return errno == ENOENT ? Outcome() : fileFailure("open", lock, errno);
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return {};
  return failure(kExitConflict, "cannot restore " + store + ": a service has it open",
                 "leave out --store, so that the service is told; or stop it first");
}

Outcome restoreStopped(Context& context, const std::string& copy, const std::string& store) {
  Outcome outcome = checkNotInUse(store);
  if (outcome.ok()) outcome = place(copy, store);
  if (!outcome.ok()) return outcome;
  if (context.output.json()) {
    Record record;
    context.output.record(record.text("store", store).text("waiting", waitingFile(store)));
  } else {
    context.output.line(store + ": the next start of the service takes " + waitingFile(store));
  }
  return {};
}

Outcome runRestore(Context& context, const Arguments& arguments) {
  const std::string& copy = arguments.one("FILE");
  if (!arguments.has("store")) return restoreRunning(context, copy);
  return restoreStopped(context, copy, fs::absolute(arguments.one("store")).string());
}

}  // namespace

Verb storeCopyVerb() {
  Verb verb;
  verb.name = "store copy";
  verb.summary =
      "copy the store of the running service into a file; for root and the service's user";
  verb.example = "appcfg store copy /backup/store.db";
  verb.positionals = {{"FILE", "what the copy is to be called"}};
  verb.options = {{"force", 'f', "", "replace what has that name"}};
  verb.run = runCopy;
  return verb;
}

Verb storeRestoreVerb() {
  Verb verb;
  verb.name = "store restore";
  verb.summary = "put a copy in the place of the store; for root and the service's user";
  verb.example = "appcfg store restore /backup/store.db";
  verb.positionals = {{"FILE", "a copy that 'appcfg store copy' made"}};
  verb.options = {
      {"store", 0, "FILE", "the store of a service that is not running: its next start takes it"}};
  verb.run = runRestore;
  return verb;
}

}  // namespace AppCfgTool
