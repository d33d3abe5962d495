// soak_worker: one process of a soak. The driver, soak.py, speaks with it in lines.
//
//   soak_worker definitions --variables N --generation G     prints definitions
//   soak_worker truth --variables N --runtime-dir DIR        prints what the service says: the mark and
//                                                            its revision; a line for each variable, 1 or
//                                                            0 for default and value; the last revision
//   soak_worker work ...                                     works as it is told on standard input:
//     work | pause | connect | flush | mark | await VALUE | look | compare FILE | counts | quit |
//     cut one | cut all
// Each answer ends with a line "done" and what belongs to it; of mark the line before has the value.
#include <fstream>
#include <iostream>
#include <map>

#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/config_if.pb.h"
#include "tests/soak/worker.h"

namespace {

using Soak::Plan;
using Soak::Truth;
using Soak::Worker;
using Soak::WorkerOptions;
using Options = std::map<std::string, std::string>;

int number(const Options& options, const std::string& name) {
  const auto found = options.find("--" + name);
  return found == options.end() ? 0 : std::atoi(found->second.c_str());
}

std::string text(const Options& options, const std::string& name) {
  const auto found = options.find("--" + name);
  return found == options.end() ? std::string() : found->second;
}

// Over an endpoint without a cache, so that nothing but the service can answer.
class Asked {
 public:
  explicit Asked(const std::string& runtimeDir) : endpoint_("truth", optionsFor(runtimeDir)) {}

  bool read(const ConfigVar& key, ConfigIF::ReadRsp& response) {
    const auto request = AppConfig::ProtobufMessageHelper::getReadRequest(
        "truth", CommonIF::SECURITY_ROLE_USER, key);
    const bool done =
        endpoint_.sendWaitResponse(request, &response, "ConfigSrvc") == PbUtility::kCallOk &&
        response.values_size() == 1;
    if (!done) complain(key.dottedName());
    return done;
  }
  bool readRevision(std::uint64_t& revision) {
    ConfigIF::StatusReq request;
    request.set_client_name("truth");
    ConfigIF::StatusRsp response;
    if (endpoint_.sendWaitResponse(request, &response, "ConfigSrvc") != PbUtility::kCallOk) {
      complain("the status");
      return false;
    }
    revision = response.revision();
    return true;
  }

 private:
  static PbUtility::EndpointOptions optionsFor(const std::string& runtimeDir) {
    PbUtility::EndpointOptions options;
    options.runtimeDir = runtimeDir;
    return options;
  }
  void complain(const std::string& what) {
    std::cerr << "soak_worker: cannot read " << what << ": " << endpoint_.lastRefusal() << "\n";
  }

  PbUtility::Endpoint endpoint_;
};

int printTruth(const Options& options) {
  Asked service(text(options, "runtime-dir"));
  const Plan plan(number(options, "variables"));
  ConfigIF::ReadRsp response;
  if (!service.read(Plan::marker(), response)) return 1;
  std::cout << response.values(0) << ' ' << response.changed_at() << '\n';
  for (std::size_t index = 0; index < plan.size(); ++index) {
    if (!service.read(plan[index].key, response)) return 1;
    std::cout << (response.is_default() ? 1 : 0) << ' ' << response.values(0) << '\n';
  }
  std::uint64_t revision = 0;
  if (!service.readRevision(revision)) return 1;
  std::cout << revision << '\n';
  return 0;
}

std::vector<Truth> readTruths(const std::string& file) {
  std::vector<Truth> truths;
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);)
    truths.push_back({line.substr(2), line[0] == '1'});
  return truths;
}

void compare(Worker& worker, const std::string& file) {
  const Soak::Findings findings = worker.compare(readTruths(file));
  std::cout << findings.text << "done " << findings.stale << ' ' << findings.lost << std::endl;
}

void tellCounts(const Soak::Counts& counts) {
  std::cout << "done " << counts.reads << ' ' << counts.changes << ' ' << counts.refused << ' '
            << counts.unanswered << ' ' << counts.told << ' ' << counts.asked << ' '
            << counts.outOfOrder << ' ' << counts.backwards << std::endl;
}

void done(bool is) { std::cout << "done " << (is ? 1 : 0) << std::endl; }

// False when the worker is to end.
bool obey(Worker& worker, const std::string& line) {
  if (line == "quit") return false;
  if (line == "work") worker.work();
  if (line == "pause") worker.pause();
  if (line == "look") worker.look();
  if (line == "mark") std::cout << worker.mark() << '\n';
  if (line.rfind("compare ", 0) == 0) {
    compare(worker, line.substr(8));
  } else if (line == "connect") {
    done(worker.connect());
  } else if (line == "flush") {
    done(worker.flush());
  } else if (line.rfind("await ", 0) == 0) {
    done(worker.awaitMark(line.substr(6)));
  } else if (line == "counts") {
    tellCounts(worker.counts());
  } else if (line.rfind("cut ", 0) == 0) {
    std::cout << "done " << worker.cut(line == "cut all") << std::endl;
  } else {
    std::cout << "done" << std::endl;
  }
  return true;
}

int work(const Options& options) {
  WorkerOptions workerOptions;
  workerOptions.runtimeDir = text(options, "runtime-dir");
  workerOptions.number = number(options, "number");
  workerOptions.life = number(options, "life");
  workerOptions.workers = number(options, "workers");
  workerOptions.variables = number(options, "variables");
  workerOptions.seed = static_cast<unsigned>(number(options, "seed"));
  workerOptions.readers = number(options, "readers");
  workerOptions.writers = number(options, "writers");
  workerOptions.provides = number(options, "provides") != 0;
  Worker worker(workerOptions);
  std::cout << "done" << std::endl;
  std::string line;
  while (std::getline(std::cin, line) && obey(worker, line)) {
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  Options options;
  for (int i = 2; i + 1 < argc; i += 2) options[argv[i]] = argv[i + 1];
  if (verb == "truth") return printTruth(options);
  if (verb == "work") return work(options);
  if (verb != "definitions") {
    std::cerr << "usage: soak_worker definitions|truth|work --OPTION VALUE...\n";
    return 2;
  }
  std::cout << Plan(number(options, "variables")).definitions(number(options, "generation"));
  return 0;
}
