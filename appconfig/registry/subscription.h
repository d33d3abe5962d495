// Subscription: a registered handler's owner. Once it has ended, no call of the handler runs and none
// comes any more, so that the handler can be destroyed, however many notices are on their way.
//
//   auto watcher = std::make_unique<MtuWatcher>();
//   AppConfig::Subscription told("net.eth", "mtu", watcher.get());
//   ...
//   told.end();        // waits for a call that is running
//   watcher.reset();   // nobody calls it any more
//
// Shape:   one registration, as by registerHandler (registration.h): a group and a name, in any case;
//          without a name the whole group. Movable; an empty one, a moved-from one and one of a null
//          handler own nothing, and their end does nothing. Several of one handler are told apart:
//          each call is on account of one of them, and ends with it.
// Begin:   calls may come before the constructor has returned. Where the service refuses or is away,
//          the handler is registered in this process all the same.
// End:     by end() or by the destructor. A call of the handler that is running on another thread is
//          waited for, as long as it takes. The service is told nothing, so it takes no exchange.
//          Inside a handler it may be ended as well, the handler's own included: then the call that
//          is running goes on, for it cannot be waited for by its own thread, and is the last. So a
//          handler may end its subscription and delete itself, if it touches nothing of itself then.
// Locks:   the library holds none while it waits or calls a handler. Do not end one while you hold a
//          lock that the handler takes, and let no handler wait for a thread that ends its
//          subscription: each would wait for the other, and the library knows nothing of it. What it
//          knows, it sees to: of two handlers on the delivery threads of two endpoints that end each
//          other, the second does not wait.
// Threads: any, each object from one at a time.
// Forking: a child has its parent's subscriptions, and none of the calls that other threads were in.
// Owns:    the registration. Not the handler: the application destroys it, after the end. A handler
//          that owns its own subscription declares it as its last member and is final, so that
//          nothing of the handler is gone while it can still be called.
//
// Not so: unregisterHandler and delete. It waits for nothing, and a notice that had looked the handler
// up before calls it afterwards.
#pragma once

#include <string>
#include <utility>

#include "appconfig/core/export.h"

class ConsumerConfigHandler;
class ProviderConfigHandler;

namespace AppConfig {

class AppCfgManager;

class Subscription {
 public:
  // Owns nothing.
  Subscription() = default;
  // Registers a consumer of a variable; a null manager stands for AppCfgManager::getInstance().
  [[nodiscard]] Subscription(const std::string& group, const std::string& name,
                             ConsumerConfigHandler* handler, AppCfgManager* manager = nullptr)
      : own_(begin(group, name, handler, manager)) {}
  // Registers a provider of a variable.
  [[nodiscard]] Subscription(const std::string& group, const std::string& name,
                             ProviderConfigHandler* handler, AppCfgManager* manager = nullptr)
      : own_(begin(group, name, handler, manager)) {}
  // Registers a consumer of a group.
  [[nodiscard]] Subscription(const std::string& group, ConsumerConfigHandler* handler,
                             AppCfgManager* manager = nullptr)
      : own_(begin(group, std::string(), handler, manager)) {}
  // Registers a provider of a group.
  [[nodiscard]] Subscription(const std::string& group, ProviderConfigHandler* handler,
                             AppCfgManager* manager = nullptr)
      : own_(begin(group, std::string(), handler, manager)) {}
  // Ends it.
  ~Subscription() { end(); }

  // The other owns nothing then.
  Subscription(Subscription&& other) noexcept : own_(std::exchange(other.own_, nullptr)) {}
  // Ends what this one owned; the other owns nothing then.
  Subscription& operator=(Subscription&& other) noexcept {
    if (this != &other) {
      end();
      own_ = std::exchange(other.own_, nullptr);
    }
    return *this;
  }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  // From its return on no call comes on account of this one. Does nothing the second time.
  void end() {
    if (own_ != nullptr) end(std::exchange(own_, nullptr));
  }

  // Whether it owns a registration.
  explicit operator bool() const { return own_ != nullptr; }

 private:
  struct Registration;

  APPCONFIG_EXPORT static Registration* begin(const std::string& group, const std::string& name,
                                              ConsumerConfigHandler* handler,
                                              AppCfgManager* manager);
  APPCONFIG_EXPORT static Registration* begin(const std::string& group, const std::string& name,
                                              ProviderConfigHandler* handler,
                                              AppCfgManager* manager);
  APPCONFIG_EXPORT static void end(Registration* registration) noexcept;

  Registration* own_ = nullptr;
};

}  // namespace AppConfig
