// history_worker: one process of a recorded history. The driver, history.py, speaks with it in lines.
//
//   history_worker definitions --variables N --generation G   prints definitions
//   history_worker epoch --runtime-dir DIR                    prints the service's epoch
//   history_worker work ...                                   works as it is told on standard input:
//     work | pause | cut one | cut all | connect | flush | mark | await VALUE | look | truth
// Each answer ends with a line "done" and what belongs to it; of mark the line before has the value.
#include <chrono>
#include <iostream>
#include <map>
#include <thread>

#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/config_if.pb.h"
#include "tests/history/worker.h"

namespace {

using History::Worker;
using Options = std::map<std::string, std::string>;

int number(const Options& options, const std::string& name) {
  const auto found = options.find("--" + name);
  return found == options.end() ? 0 : std::atoi(found->second.c_str());
}

std::string text(const Options& options, const std::string& name) {
  const auto found = options.find("--" + name);
  return found == options.end() ? std::string() : found->second;
}

// A service that is just starting refuses; one that does not start at all is the driver's to notice.
int printEpoch(const Options& options) {
  PbUtility::EndpointOptions endpointOptions;
  endpointOptions.runtimeDir = text(options, "runtime-dir");
  PbUtility::Endpoint endpoint("epoch", endpointOptions);
  const auto request = AppConfig::ProtobufMessageHelper::getReadRequest(
      "epoch", CommonIF::SECURITY_ROLE_USER, Worker::marker());
  ConfigIF::ReadRsp response;
  while (endpoint.sendWaitResponse(request, &response, "ConfigSrvc") != PbUtility::kCallOk)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::cout << response.epoch() << std::endl;
  return 0;
}

void done(bool is) { std::cout << "done " << (is ? 1 : 0) << std::endl; }

void mark(Worker& worker) {
  History::Stamped stamped;
  const std::string value = worker.mark(stamped);
  std::cout << value << "\ndone " << stamped.epoch << ' ' << stamped.revision << std::endl;
}

void obey(Worker& worker, const std::string& line) {
  if (line == "work") worker.work();
  if (line == "pause") worker.pause();
  if (line == "look") worker.look();
  if (line == "connect") return done(worker.connect());
  if (line == "flush") return done(worker.flush());
  if (line == "mark") return mark(worker);
  if (line == "truth") return done(worker.readTruth());
  if (line.rfind("await ", 0) == 0) return done(worker.awaitMark(line.substr(6)));
  if (line.rfind("cut ", 0) == 0) {
    std::cout << "done " << Worker::cut(line == "cut all") << std::endl;
    return;
  }
  std::cout << "done" << std::endl;
}

int work(const Options& options) {
  History::WorkerOptions workerOptions;
  workerOptions.runtimeDir = text(options, "runtime-dir");
  workerOptions.journal = text(options, "journal");
  workerOptions.number = number(options, "number");
  workerOptions.life = number(options, "life");
  workerOptions.variables = number(options, "variables");
  workerOptions.seed = static_cast<unsigned>(number(options, "seed"));
  workerOptions.threads = number(options, "threads");
  workerOptions.rest = std::chrono::microseconds(number(options, "rest"));
  workerOptions.provides = number(options, "provides") != 0;
  Worker worker(workerOptions);
  std::cout << "done" << std::endl;
  for (std::string line; std::getline(std::cin, line);) obey(worker, line);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  Options options;
  for (int i = 2; i + 1 < argc; i += 2) options[argv[i]] = argv[i + 1];
  if (verb == "epoch") return printEpoch(options);
  if (verb == "work") return work(options);
  if (verb != "definitions") {
    std::cerr << "usage: history_worker definitions|epoch|work --OPTION VALUE...\n";
    return 2;
  }
  std::cout << Worker::definitions(number(options, "variables"), number(options, "generation"));
  return 0;
}
