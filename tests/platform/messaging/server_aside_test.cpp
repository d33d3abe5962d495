#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "platform/messaging/endpoint.h"
#include "platform/messaging/serving/server.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using TestSupport::eventually;
using TestSupport::Serving;

class ServerAsideTest : public ::testing::Test {
 protected:
  // Puts aside work that lasts until finish().
  void begin(const std::function<void()>& done) {
    serving_.onServer([&](Server& server) {
      server.aside(
          [this] {
            begun_ = true;
            EXPECT_TRUE(eventually([this] { return finished_.load(); }));
          },
          done);
    });
    ASSERT_TRUE(eventually([this] { return begun_.load(); }));
  }
  void finish() { finished_ = true; }
  ~ServerAsideTest() override { finish(); }

  int read() {
    ConfigIF::ReadReq request;
    request.set_client_name("reader");
    ConfigIF::ReadRsp response;
    return endpoint_.sendWaitResponse(request, &response, "ConfigSrvc");
  }

  static EndpointOptions optionsFor(const std::string& runtimeDir) {
    EndpointOptions options;
    options.runtimeDir = runtimeDir;
    return options;
  }

  std::atomic<bool> begun_{false};
  std::atomic<bool> finished_{false};
  TestSupport::TempDir dir_;
  Serving serving_{dir_.path()};
  Endpoint endpoint_{"reader", optionsFor(dir_.path())};
};

TEST_F(ServerAsideTest, RequestsAreAnsweredWhileWorkIsUnderWay) {
  std::atomic<bool> done{false};
  begin([&] { done = true; });
  for (int i = 0; i < 3; ++i) EXPECT_EQ(read(), 0);
  EXPECT_FALSE(done);
  finish();
  EXPECT_TRUE(eventually([&] { return done.load(); }));
  EXPECT_EQ(read(), 0);
}

TEST_F(ServerAsideTest, WhatComesAfterTheWorkHasTheLoopToItself) {
  std::atomic<int> inLoop{0};
  std::atomic<bool> done{false};
  std::atomic<bool> overlapped{false};
  const auto visit = [&] {
    if (++inLoop != 1) overlapped = true;
    --inLoop;
  };
  serving_.onServer([&](Server&) {
    serving_.onRequestDo = [&](Server& server, const Serving::Request& request) {
      visit();
      server.respond(request.id, ConfigIF::ReadRsp(), 1);
    };
  });
  begin([&] {
    visit();
    done = true;
  });
  std::thread reading([&] {
    while (!done) read();
  });
  finish();
  EXPECT_TRUE(eventually([&] { return done.load(); }));
  reading.join();
  EXPECT_FALSE(overlapped);
}

TEST_F(ServerAsideTest, ATimerFiresWhileWorkIsUnderWay) {
  begin([] {});
  std::atomic<bool> fired{false};
  serving_.onServer(
      [&](Server& server) { server.after(std::chrono::milliseconds(1), [&] { fired = true; }); });
  EXPECT_TRUE(eventually([&] { return fired.load(); }));
  finish();
}

TEST_F(ServerAsideTest, WorkThatIsPutAsideDuringWorkIsDoneToo) {
  std::atomic<int> done{0};
  begin([&] { ++done; });
  serving_.onServer([&](Server& server) { server.aside([] {}, [&] { ++done; }); });
  finish();
  EXPECT_TRUE(eventually([&] { return done == 2; }));
}

TEST_F(ServerAsideTest, WorkMayPutMoreWorkAsideWhenItIsDoneOverAndOver) {
  constexpr int kTimes = 200;
  std::atomic<int> done{0};
  std::function<void(Server&)> again = [&](Server& server) {
    server.aside([] {},
                 [&, target = &server] {
                   if (++done < kTimes) again(*target);
                 });
  };
  serving_.onServer(again);
  while (done < kTimes) ASSERT_EQ(read(), 0);
}

TEST_F(ServerAsideTest, TheServerEndsOnlyWhenWorkUnderWayIsOver) {
  std::atomic<bool> done{false};
  begin([&] { done = true; });
  serving_.onServer([](Server& server) { server.stop(); });
  EXPECT_FALSE(done);
  finish();
  EXPECT_TRUE(eventually([&] { return done.load(); }));
}

}  // namespace
}  // namespace PbUtility
