// Each event looks up who is subscribed to it and leaves out those whose role may not read the
// variable. A notice is coalesced by its kind, its variable and its identity: a newer one takes the
// place of one that still waits, so that each notice has to say all of what it is about.
//
// A notice also tells the peer up to which revision it knows everything (Host::Knows). Where others
// of the same change may follow it, to the same peer, it says the revision before.
#include "configsrv/changes/announcer.h"

#include <algorithm>
#include <set>

#include "configsrv/changes/wire_forms.h"
#include "platform/messaging/wire/frame.h"
#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {
namespace {

using AppConfig::SecurityRole;
using PbUtility::PeerId;

bool mayRead(const Subscriber& subscriber, const Variable& variable) {
  return subscriber.role >= variable.readRole();
}

// A variable that became readable is as good as changed for those who could not read it before.
std::uint64_t shownAt(std::uint64_t changedAt, const Variable& variable) {
  return std::max(changedAt, variable.accessChangedAt());
}

// Subscribers are sorted by peer. Of a peer with two identities both notices count as one of several,
// so that nothing depends on which is the last.
Host::Knows knowsAfter(const std::vector<Subscriber>& subscribers, std::size_t i) {
  const PeerId peer = subscribers[i].peer;
  const bool isOneOfSeveral = (i > 0 && subscribers[i - 1].peer == peer) ||
                              (i + 1 < subscribers.size() && subscribers[i + 1].peer == peer);
  return isOneOfSeveral ? Host::Knows::AllBefore : Host::Knows::AllOfThis;
}

// For everybody alike; whom it is for, address() writes into it.
ConfigIF::ConfigChangedNtfy valueNotice(const Model& model, const Variable& variable) {
  ConfigIF::ConfigChangedNtfy notice;
  ConfigIF::InstValue& value = *notice.mutable_value();
  fillInst(value.mutable_inst(), variable.key());
  for (const std::string& element : variable.value()) value.add_values(element);
  notice.set_is_default(variable.isDefault());
  fillStamp({model.epoch(), variable.valueChangedAt()}, notice);
  return notice;
}

template <typename Notice>
void address(std::string_view identity, Notice& notice) {
  notice.mutable_callback_identity()->assign(identity);
}

}  // namespace

void Announcer::valueChanged(const Variable& variable) {
  const std::string name = variable.key().dottedName();
  const auto subscribers = subscriptions_.covering(name, ConfigIF::CALLBACK_VALUE_CHANGED);
  if (subscribers.empty()) return;
  ConfigIF::ConfigChangedNtfy notice = valueNotice(model_, variable);
  for (std::size_t i = 0; i < subscribers.size(); ++i) {
    const Subscriber& to = subscribers[i];
    if (!mayRead(to, variable)) continue;
    address(to.identity, notice);
    notify(to.peer, notice, 'v', to.identity, variable, knowsAfter(subscribers, i));
  }
}

void Announcer::valueMissedOnChange(const Variable& variable, const std::vector<PeerId>& told) {
  const std::string name = variable.key().dottedName();
  const auto providers = subscriptions_.covering(name, ConfigIF::CALLBACK_ON_CHANGE);
  if (providers.empty()) return;
  const auto subscribers = subscriptions_.covering(name, ConfigIF::CALLBACK_VALUE_CHANGED);
  for (const Subscriber& to : providers) {
    const auto isSame = [&to](const Subscriber& other) {
      return other.peer == to.peer && other.identity == to.identity;
    };
    const bool knows = std::find(told.begin(), told.end(), to.peer) != told.end() ||
                       std::any_of(subscribers.begin(), subscribers.end(), isSame);
    if (!knows && mayRead(to, variable))
      tellValue(to.peer, to.identity, variable, Knows::AllBefore);
  }
}

void Announcer::optionsChanged(const Variable& variable, Knows knows) {
  const std::string name = variable.key().dottedName();
  const auto subscribers = subscriptions_.covering(name, ConfigIF::CALLBACK_OPTIONS_CHANGED);
  for (std::size_t i = 0; i < subscribers.size(); ++i) {
    const Subscriber& to = subscribers[i];
    const bool isAll = knows == Knows::AllOfThis;
    if (mayRead(to, variable))
      tellOptions(to.peer, to.identity, variable, isAll ? knowsAfter(subscribers, i) : knows);
  }
}

void Announcer::accessLevelsChanged(const Variable& variable, Roles before) {
  const std::string name = variable.key().dottedName();
  for (const Subscriber& to :
       subscriptions_.covering(name, ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED))
    tellAccessLevels(to.peer, to.identity, variable, Knows::AllBefore);
  if (variable.readRole() < before.read) tellNewReaders(variable, before.read);
}

void Announcer::tellNewReaders(const Variable& variable, SecurityRole before) {
  const std::string name = variable.key().dottedName();
  const auto isNew = [&](const Subscriber& to) {
    return mayRead(to, variable) && to.role < before;
  };
  for (const Subscriber& to : subscriptions_.covering(name, ConfigIF::CALLBACK_VALUE_CHANGED)) {
    if (isNew(to)) tellValue(to.peer, to.identity, variable, Knows::AllBefore);
  }
  for (const Subscriber& to : subscriptions_.covering(name, ConfigIF::CALLBACK_OPTIONS_CHANGED)) {
    if (isNew(to)) tellOptions(to.peer, to.identity, variable, Knows::AllBefore);
  }
}

void Announcer::attributesReset(const Variable& variable) {
  const std::string name = variable.key().dottedName();
  ConfigIF::AttributeChangedNtfy notice;
  fillInst(notice.mutable_inst(), variable.key());
  for (const Subscriber& to : subscriptions_.covering(name, ConfigIF::CALLBACK_ATTRIBUTE_CHANGED)) {
    address(to.identity, notice);
    notify(to.peer, notice, 't', to.identity, variable, Knows::AllBefore);
  }
}

// Each submit counts: they are not coalesced.
void Announcer::submitted(const Variable& variable, ConfigIF::SubmitType type) {
  const std::string name = variable.key().dottedName();
  ConfigIF::SubmitNtfy notice;
  fillInst(notice.mutable_inst(), variable.key());
  notice.set_type(type);
  for (const Subscriber& to : subscriptions_.covering(name, ConfigIF::CALLBACK_SUBMIT)) {
    address(to.identity, notice);
    ++notices_;
    host_.notify(to.peer, notice, {}, Knows::AllOfThis);
  }
}

void Announcer::repeatValue(const Variable& variable, PeerId peer) {
  const std::string name = variable.key().dottedName();
  std::set<std::string_view> identities;
  for (const Type type : {ConfigIF::CALLBACK_ON_CHANGE, ConfigIF::CALLBACK_DYNAMIC_VALIDATE,
                          ConfigIF::CALLBACK_VALUE_CHANGED}) {
    for (const Subscriber& to : subscriptions_.covering(name, type)) {
      if (to.peer == peer && mayRead(to, variable)) identities.insert(to.identity);
    }
  }
  for (const std::string_view identity : identities) tellValue(peer, identity, variable);
}

void Announcer::bringUpToDate(PeerId peer, const Registration& registration,
                              const Variable& variable, std::uint64_t knownRevision) {
  const bool readable = registration.role >= variable.readRole();
  const bool nothingKnown = knownRevision == PbUtility::kRevisionNone;
  const auto missed = [&](std::uint64_t at) { return nothingKnown || at > knownRevision; };
  switch (registration.type) {
    case ConfigIF::CALLBACK_ON_CHANGE:
    case ConfigIF::CALLBACK_DYNAMIC_VALIDATE:
    case ConfigIF::CALLBACK_VALUE_CHANGED:
      if (readable && missed(shownAt(variable.valueChangedAt(), variable)))
        tellValue(peer, registration.identity, variable);
      return;
    case ConfigIF::CALLBACK_OPTIONS_CHANGED:
      if (readable && missed(shownAt(variable.optionsChangedAt(), variable)))
        tellOptions(peer, registration.identity, variable);
      return;
    case ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED:
      if (missed(variable.accessChangedAt()))
        tellAccessLevels(peer, registration.identity, variable);
      return;
    // Events, not states: what is past is past.
    case ConfigIF::CALLBACK_ATTRIBUTE_CHANGED:
    case ConfigIF::CALLBACK_SUBMIT:
      return;
  }
}

void Announcer::tellValue(PeerId peer, std::string_view identity, const Variable& variable,
                          Knows knows) {
  ConfigIF::ConfigChangedNtfy notice = valueNotice(model_, variable);
  address(identity, notice);
  notify(peer, notice, 'v', identity, variable, knows);
}

void Announcer::tellOptions(PeerId peer, std::string_view identity, const Variable& variable,
                            Knows knows) {
  ConfigIF::OptionsChangedNtfy notice;
  address(identity, notice);
  fillInst(notice.mutable_inst(), variable.key());
  for (const std::string& option : variable.options()) notice.add_options(option);
  notice.set_default_index(variable.defaultIndex());
  fillStamp({model_.epoch(), variable.optionsChangedAt()}, notice);
  notify(peer, notice, 'o', identity, variable, knows);
}

// Both roles, also when one is as it was: handlers are called with both, and a newer notice may
// take the place of one that still waits.
void Announcer::tellAccessLevels(PeerId peer, std::string_view identity, const Variable& variable,
                                 Knows knows) {
  ConfigIF::AccessLevelChangedNtfy notice;
  address(identity, notice);
  fillInst(notice.mutable_inst(), variable.key());
  notice.set_read_role(toWire(variable.readRole()));
  notice.set_write_role(toWire(variable.writeRole()));
  fillStamp({model_.epoch(), variable.accessChangedAt()}, notice);
  notify(peer, notice, 'a', identity, variable, knows);
}

void Announcer::notify(PeerId peer, const google::protobuf::MessageLite& notice, char kind,
                       std::string_view identity, const Variable& variable, Knows knows) {
  ++notices_;
  const std::string index = std::to_string(model_.indexOf(variable));
  std::string key;
  key.reserve(index.size() + identity.size() + 2);
  key += kind;
  key += index;
  key += ' ';
  key += identity;
  host_.notify(peer, notice, key, knows);
}

}  // namespace ConfigSrv
