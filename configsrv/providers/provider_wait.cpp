#include "configsrv/providers/provider_wait.h"

#include <utility>

namespace ConfigSrv {

ProviderWait::ProviderWait(ProviderMemory& memory, After after, std::function<void()> onFewer)
    : memory_(memory), after_(std::move(after)), onFewer_(std::move(onFewer)) {}

void ProviderWait::begin(std::chrono::milliseconds grace) {
  if (!memory_.expectsAny()) return;
  after_(grace, [this] {
    memory_.giveUp();
    onFewer_();
  });
  checkLater();
}

void ProviderWait::checkLater() {
  after_(kCheck, [this] {
    if (memory_.forgetDead()) onFewer_();
    if (memory_.expectsAny()) checkLater();
  });
}

}  // namespace ConfigSrv
