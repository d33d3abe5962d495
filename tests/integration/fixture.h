// IntegrationTest: a running service with a few variables.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/service_process.h"
#include "tests/support/test_client.h"

namespace TestSupport {

inline const char* const kDefinitions = R"(
[variable."net.mtu"]
type = "int"
min = 68
max = 9000
default = 1500
description = "Largest packet, in bytes"

[variable."net.name"]
type = "string"
default = "gateway"

[variable."net.servers"]
type = "list"
default = ["a", "b"]

[variable."net.mode"]
type = "enumeration"
options = ["auto", "manual"]
default = "auto"

[variable."net.secret"]
type = "string"
default = "hidden"
read-role = "factory"

[variable."net.admin"]
type = "string"
default = "x"
write-role = "installer"

[variable."device.serial"]
type = "string"
default = "1234"
read-only = true

[variable."3:engine.speed"]
type = "int"
default = 0

[variable."test.marker"]
type = "int"
default = 0
)";

class IntegrationTest : public testing::Test {
 protected:
  IntegrationTest() { service_.start(); }

  // Whatever was queued for this client before has been delivered when this returns.
  void catchUp(TestClient& client) {
    ASSERT_TRUE(client.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "test.marker").ok());
    const std::string value = std::to_string(++marker_);
    ASSERT_TRUE(client.write("test.marker", value).ok());
    ASSERT_TRUE(client.waitForNotice("value test.marker = " + value));
  }

  ServiceProcess service_{kDefinitions};
  TestClient client_{"client", service_.runtimeDir()};
  TestClient other_{"other", service_.runtimeDir()};

 private:
  int marker_ = 0;
};

}  // namespace TestSupport
