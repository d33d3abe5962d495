// SharesFixture: changes with limits, and root and two ordinary users who make them.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <utility>

#include "tests/configsrv/changes/changes_fixture.h"

namespace ConfigSrv {

constexpr PbUtility::Owner kRoot{0, 10};
constexpr PbUtility::Owner kUser{1000, 20};
constexpr PbUtility::Owner kOtherUser{1001, 30};

class SharesFixture : public ChangesFixture {
 protected:
  // Anew, over what was written so far.
  void limit(const ChangesOptions& options) {
    changes_ = std::make_unique<Changes>(model_, subscriptions_, announcer_, host_, log_, options);
  }
  static Requester by(PbUtility::Owner owner) {
    Requester requester = writer();
    requester.owner = owner;
    return requester;
  }
  Changed begin(PbUtility::Owner owner, StoreChange change) {
    return submit(by(owner), std::move(change));
  }
  Changed beginToWrite(PbUtility::Owner owner, const std::string& key, const std::string& value) {
    return begin(owner, setTo(key, {value}));
  }
  // Up to its end, and that of all others.
  Changed make(PbUtility::Owner owner, StoreChange change) {
    Changed attempt = begin(owner, std::move(change));
    while (!host_.commits.empty()) host_.finishCommit();
    return attempt;
  }
  Changed writeBy(PbUtility::Owner owner, const std::string& key, const std::string& value) {
    return make(owner, setTo(key, {value}));
  }
};

}  // namespace ConfigSrv
