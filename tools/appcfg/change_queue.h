// ChangeQueue: the value notices of the library, for one thread to wait on.
//
// Handlers run on the endpoint's delivery thread. A verb that printed there would hold up every
// later notice while its reader is slow, so notices are put into this queue, and the verb's own
// thread takes them out.
//
// Limit:   at most kMaxWaiting changes wait; past that only the newest of each variable does, so
//          that a reader that stopped reading costs no more than the variables it watches.
// Threads: the handler's operations on the delivery thread, the others on any one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <vector>

#include "appconfig/core/config_var.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "base/mutex.h"
#include "base/unique_fd.h"

namespace AppCfgTool {

struct Change {
  ConfigVar var;
  std::vector<std::string> value;
};

class ChangeQueue final : public ConsumerConfigHandler {
 public:
  static constexpr std::size_t kMaxWaiting = 65536;

  // The namespace that the handler's link serves: notices do not repeat it.
  explicit ChangeQueue(std::int32_t nameSpace);
  ChangeQueue(const ChangeQueue&) = delete;
  ChangeQueue& operator=(const ChangeQueue&) = delete;

  // Readable while changes wait.
  int wakeFd() const { return wakeFd_.get(); }
  // All that wait, in the order in which they happened.
  std::deque<Change> take();

  void configChanged(const std::string& group, int groupInstance, const std::string& name,
                     int nameInstance, const std::list<std::string>& value,
                     const std::string& identity) override;
  // Not what a watch is about.
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }

 private:
  void makeRoomFor(const ConfigVar& var) APPCONFIG_REQUIRES(mutex_);

  const std::int32_t nameSpace_;
  const Base::UniqueFd wakeFd_;
  // Nothing is called while it is held but the wake-up.
  Base::Mutex mutex_;
  std::deque<Change> changes_ APPCONFIG_GUARDED_BY(mutex_);
};

}  // namespace AppCfgTool
