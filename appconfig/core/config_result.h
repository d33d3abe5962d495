// ConfigResult: outcome of one operation, as the service or a provider reported it: error code,
// flag, result messages, server context, client name.
//
// Shape:   a plain value: a fresh one says success (eErrNone), flag false, no messages and two
//          empty strings. Copying and assigning take all five fields.
// Errors:  none of its own. Success is error() == eErrNone; any other code, negative ones
//          included, is a failure. A provider puts in codes of eErrorT only: others cannot be sent.
// Threads: a plain value; any number of threads may read one.
//
//   bool Thermostat::dynamicValidate(..., ConfigResult* result) {
//     result->addResultMessage("the boiler is off");
//     return result->fillConfigResult(false, eErrVetoed, false);
//   }
#pragma once

#include <list>
#include <string>

#include "appconfig/core/error.h"
#include "appconfig/core/export.h"

class APPCONFIG_EXPORT ConfigResult {
 public:
  eErrorT error() const { return error_; }

  // Travels with the code to and from the wire; the library gives it no meaning.
  bool flag() const { return flag_; }

  // For people to read, in the order in which they were added.
  const std::list<std::string>& resultMessages() const { return resultMessages_; }

  // Context text of the service side, and the client concerned: taken over from the request that
  // is being answered. Empty when it carried none.
  const std::string& serverContext() const { return serverContext_; }
  const std::string& clientName() const { return clientName_; }

  // Replaces code and flag and hands ret back, so that a caller can end with
  // "return result.fillConfigResult(true, ...)". Messages and both strings stay.
  bool fillConfigResult(bool ret, eErrorT error, bool flag);

  // Appends; a message added twice is there twice.
  void addResultMessage(const std::string& message);
  void setServerContext(const std::string& serverContext);
  void setClientName(const std::string& clientName);

  // Makes a result ready for reuse without losing whose it is: code, flag and messages go back to
  // those of a fresh one, server context and client name stay. Returns its argument.
  static ConfigResult& fillDefaults(ConfigResult& result);

 private:
  eErrorT error_ = eErrNone;
  bool flag_ = false;
  std::list<std::string> resultMessages_;
  std::string serverContext_;
  std::string clientName_;
};
