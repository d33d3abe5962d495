// ConsumerConfigHandler: how an application hears that a variable changed. Derive from it,
// implement the operations, register it for a variable or a group.
//
// Arguments: every operation starts with the variable it is about: group, group instance, name,
//            name instance, lower case. Every notice but attributeChanged ends with the callback
//            identity: the name of the link that asked for the notice, as the service echoes it.
// Repeats:   after the service or the connection was away, the newest values of what may have
//            changed are told: perhaps one that was told before, never an older one. A handler
//            that was registered while the service was away is told all values when it comes.
// Threads:   called on the endpoint's delivery thread, one notice after another; a slow handler
//            delays the next notice. It may read, write, register and unregister, itself included.
// Errors:    an operation must not throw: the program ends, after a line on standard error that
//            names operation and variable.
// Owns:      nothing: the application deletes the handler, once its Subscription has ended
//            (subscription.h). One that was registered without has to stay alive until it is
//            unregistered and no notice can be on its way. References are valid during the call.
//
//   class MtuWatcher : public ConsumerConfigHandler {
//    public:
//     void configChanged(const std::string& group, int groupInstance, const std::string& name,
//                        int nameInstance, const std::list<std::string>& value,
//                        const std::string& identity) override;
//     ...
//   };
//
// The order of the operations is part of the binary interface: applications and library are built
// apart. New ones go to the end.
#pragma once

#include <list>
#include <string>

#include "appconfig/core/export.h"
#include "appconfig/core/security_role.h"

class APPCONFIG_EXPORT ConsumerConfigHandler {
 public:
  virtual ~ConsumerConfigHandler() = default;

  // The variable has a new value, which reads already return.
  virtual void configChanged(const std::string& group, int groupInstance, const std::string& name,
                             int nameInstance, const std::list<std::string>& value,
                             const std::string& identity) = 0;

  // A submit happened. The kind is 0 or 1.
  virtual void submit(const std::string& group, int groupInstance, const std::string& name,
                      int nameInstance, int kind, const std::string& identity) = 0;

  // Never called: attribute notices are received and dropped. It has a body so that nobody must
  // write one for a call that does not come, and keeps its place in the order of operations.
  virtual void attributeChanged(const std::string& /*group*/, int /*groupInstance*/,
                                const std::string& /*name*/, int /*nameInstance*/) {}

  // The variable has a new option list. A default index that came with it is cached and not told.
  virtual void optionsChanged(const std::string& group, int groupInstance, const std::string& name,
                              int nameInstance, const std::list<std::string>& options,
                              std::string identity) = 0;

  // A role of the variable changed. A role that the notice does not carry arrives as 0.
  virtual void accessLevelsChanged(const std::string& group, int groupInstance,
                                   const std::string& name, int nameInstance,
                                   AppConfig::SecurityRole readRole,
                                   AppConfig::SecurityRole writeRole, std::string identity) = 0;
};
