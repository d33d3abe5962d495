// AccessTest: a running service that every user of the machine can reach, with something to hide.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/integration/fixture.h"
#include "tests/platform/messaging/raw_client.h"
#include "tests/support/child.h"

namespace TestSupport {

// What stands nowhere but in what only the role factory may read.
inline const char* const kHidden = "WHAT-NOBODY-MAY-SEE";

inline const char* const kGuarded = R"(
[variable."net.mtu"]
type = "int"
default = 1500
max = 9000

[variable."net.hidden"]
type = "enumeration"
default = "WHAT-NOBODY-MAY-SEE"
options = ["WHAT-NOBODY-MAY-SEE", "WHAT-NOBODY-MAY-SEE-2"]
description = "WHAT-NOBODY-MAY-SEE-3"
read-role = "factory"
write-role = "user"

[variable."net.admin"]
type = "string"
default = "x"
write-role = "installer"

[variable."net.password"]
type = "string"
default = ""
max-length = 64
secret = true
write-role = "user"

[variable."test.marker"]
type = "int"
default = 0
)";

class AccessTest : public testing::Test {
 protected:
  explicit AccessTest(std::vector<std::string> arguments = {})
      : service_(kGuarded, std::move(arguments)) {
    openToAll(service_);
  }
  void SetUp() override {
    if (!canBecomeOthers()) GTEST_SKIP() << "only root can send clients of another user";
    service_.start();
  }

  // The fixture's directory is its user's alone.
  static void openToAll(const ServiceProcess& service) {
    EXPECT_EQ(chmod(service.directory().path().c_str(), 0711), 0);
  }

  // What one line of a client of another user comes to: "refused <text>", "error 3 <text>", "ok".
  static std::string told(const Outcome& outcome) {
    std::string text = outcome.text;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (outcome.call != PbUtility::kCallOk)
      return "call " + std::to_string(outcome.call) + " " + text;
    return outcome.ok() ? "ok" : "error " + std::to_string(outcome.error) + " " + text;
  }
  // Runs as another user, in a process of its own.
  std::string asUser(uid_t user, const std::string& name,
                     const std::function<std::string(TestClient&)>& run) const {
    const Child child(user, [&](Child::Parent& test) {
      TestClient client(name, service_.runtimeDir());
      test.say(run(client));
    });
    return child.hear();
  }

  ServiceProcess service_;
};

}  // namespace TestSupport
