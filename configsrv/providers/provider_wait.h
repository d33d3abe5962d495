// ProviderWait: ends the waiting for providers that were expected back after a restart.
//
// A provider that is back is no longer expected (ProviderMemory). For those that do not come, this
// looks from time to time whether their processes still live, and gives up once the grace is over.
//
// Threads:  one. The memory outlives it, and so does whatever runs the timers.
//
//   ProviderWait wait(memory, after, [&] { changes.providersCame(); });
//   wait.begin(std::chrono::seconds(2));
#pragma once

#include <chrono>
#include <functional>

#include "configsrv/providers/provider_memory.h"

namespace ConfigSrv {

class ProviderWait {
 public:
  // How often is looked whether an expected provider's process still lives.
  static constexpr std::chrono::milliseconds kCheck{20};

  // Runs a task once, after a delay.
  using After = std::function<void(std::chrono::milliseconds delay, std::function<void()> task)>;

  // `onFewer` is called whenever somebody is expected no longer without having come back.
  ProviderWait(ProviderMemory& memory, After after, std::function<void()> onFewer);
  ProviderWait(const ProviderWait&) = delete;
  ProviderWait& operator=(const ProviderWait&) = delete;

  // Sets no timer when nobody is expected.
  void begin(std::chrono::milliseconds grace);

 private:
  void checkLater();

  ProviderMemory& memory_;
  const After after_;
  const std::function<void()> onFewer_;
};

}  // namespace ConfigSrv
