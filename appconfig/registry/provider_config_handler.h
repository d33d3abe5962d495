// ProviderConfigHandler: how the application that owns a variable takes part in changing it. Derive
// from it, implement both operations, register it for the variable or its group.
//
// A change first asks the providers whether the value is acceptable (dynamicValidate; one veto ends
// the change) and then tells them that it is coming (onChange).
//
// Arguments: every operation starts with the variable it is about: group, group instance, name,
//            name instance, lower case; then the value, the role of the client that asks for the
//            change, and the result that travels back to it. The result is never null and carries
//            the request's server context and client name already; several providers of one
//            variable fill the same one, one after another.
// Threads:   called on the endpoint's delivery thread. The service waits for the answer for a
//            limited time and then fails the change, so answer soon. A provider may read and write
//            other variables; writing the one it is asked about fails with eErrConflict.
// Errors:    an operation must not throw: the program ends, after a line on standard error that
//            names operation and variable. A value that cannot be taken is refused by the result.
// Owns:      nothing: the application deletes the handler, once its Subscription has ended
//            (subscription.h). One that was registered without has to stay alive until it is
//            unregistered and no request can be on its way. References are valid during the call.
//
//   bool Thermostat::dynamicValidate(..., const std::list<std::string>& value,
//                                    AppConfig::SecurityRole, ConfigResult* result) {
//     if (reachable(value)) return true;
//     result->addResultMessage("the boiler cannot heat that much");
//     return result->fillConfigResult(false, eErrVetoed, false);
//   }
//
// The order of the operations is part of the binary interface: applications and library are built
// apart. New ones go to the end.
#pragma once

#include <list>
#include <string>

#include "appconfig/core/config_result.h"
#include "appconfig/core/export.h"
#include "appconfig/core/security_role.h"

class APPCONFIG_EXPORT ProviderConfigHandler {
 public:
  virtual ~ProviderConfigHandler() = default;

  // Whether the value is acceptable. A veto is an error in the result (eErrVetoed) with a message
  // that says why, and false. False alone only keeps providers after this one from being asked: it
  // is the result that travels, so the writer would see no refusal.
  virtual bool dynamicValidate(const std::string& group, int groupInstance, const std::string& name,
                               int nameInstance, const std::list<std::string>& value,
                               AppConfig::SecurityRole requesterRole, ConfigResult* result) = 0;

  // The value is about to become the variable's. Every provider is told, whatever the earlier ones
  // returned; a provider that cannot follow puts an error into the result.
  virtual bool onChange(const std::string& group, int groupInstance, const std::string& name,
                        int nameInstance, const std::list<std::string>& value,
                        AppConfig::SecurityRole requesterRole, ConfigResult* result) = 0;
};
