// Announcer: tells subscribers what changed.
//
// A subscriber is told of a value or of options only while its role may read the variable; access
// levels are told to every subscriber. Each peer and identity is told once of each event, however
// many of its registrations cover the variable. A peer that is slow is told only the newest state
// of each variable.
//
// Threads:  one.
// Owns:     nothing; model, subscriptions and host outlive it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "appconfig/core/security_role.h"
#include "configsrv/changes/host.h"
#include "configsrv/model/model.h"
#include "configsrv/subscriptions/subscriptions.h"

namespace ConfigIF {
enum SubmitType : int;
}

namespace ConfigSrv {

class Announcer {
 public:
  // The roles that guarded a variable before a change.
  struct Roles {
    AppConfig::SecurityRole read = AppConfig::eRolePublic;
    AppConfig::SecurityRole write = AppConfig::eRolePublic;
  };

  Announcer(const Model& model, const Subscriptions& subscriptions, Host& host)
      : model_(model), subscriptions_(subscriptions), host_(host) {}

  using Knows = Host::Knows;

  // What was applied to the model, to everybody concerned.
  void valueChanged(const Variable& variable);
  // The changed value, to providers that know it from on change only in part or not at all, and that
  // are no subscribers either: all of the variable's but those of `told`. Before valueChanged, after
  // which a peer knows all.
  void valueMissedOnChange(const Variable& variable, const std::vector<PbUtility::PeerId>& told);
  void optionsChanged(const Variable& variable, Knows knows = Knows::AllOfThis);
  // Also tells value and options to those who may read them only now: they may have missed changes.
  void accessLevelsChanged(const Variable& variable, Roles before);
  void attributesReset(const Variable& variable);
  void submitted(const Variable& variable, ConfigIF::SubmitType type);

  // The value again, to everything that this peer may have cached it for: a provider that was told
  // a value on change has cached it, and learns here that it did not come to be.
  void repeatValue(const Variable& variable, PbUtility::PeerId peer);

  // What changed after a revision of a variable that the registration covers; kRevisionNone: all of
  // it; kRevisionNow: nothing. A provider's registration is told values, for it caches them.
  void bringUpToDate(PbUtility::PeerId peer, const Registration& registration,
                     const Variable& variable, std::uint64_t knownRevision);

  // Notices queued so far.
  std::uint64_t notices() const { return notices_; }

 private:
  using Type = ConfigIF::CallbackType;

  void tellValue(PbUtility::PeerId peer, std::string_view identity, const Variable& variable,
                 Knows knows = Knows::AllOfThis);
  void tellOptions(PbUtility::PeerId peer, std::string_view identity, const Variable& variable,
                   Knows knows = Knows::AllOfThis);
  void tellAccessLevels(PbUtility::PeerId peer, std::string_view identity, const Variable& variable,
                        Knows knows = Knows::AllOfThis);
  void tellNewReaders(const Variable& variable, AppConfig::SecurityRole before);
  void notify(PbUtility::PeerId peer, const google::protobuf::MessageLite& notice, char kind,
              std::string_view identity, const Variable& variable, Knows knows);

  const Model& model_;
  const Subscriptions& subscriptions_;
  Host& host_;
  std::uint64_t notices_ = 0;
};

}  // namespace ConfigSrv
