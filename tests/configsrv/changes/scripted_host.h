// ScriptedHost: the world of a change, moved by hand: a test decides what peers answer, when time
// passes and when the disk is done.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "appconfig/core/key_notation.h"
#include "configsrv/changes/host.h"
#include "configsrv/changes/wire_forms.h"
#include "configsrv/model/model.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {

// "ConfigChangedNtfy 2/link net.mtu = 1400" and the like: what a notice says, in a line.
template <typename Notice>
std::string named(const char* what, PbUtility::PeerId peer, const Notice& notice,
                  const ConfigIF::Inst& inst) {
  return std::string(what) + " " + std::to_string(peer) + "/" + notice.callback_identity() + " " +
         AppConfig::formatKey(*readInst(inst));
}

class ScriptedHost : public Host {
 public:
  struct Asked {
    PbUtility::PeerId peer;
    std::uint32_t number;
    bool onChange;
    ConfigIF::DynamicValidateReq message;
  };

  std::uint32_t ask(PbUtility::PeerId peer,
                    const google::protobuf::MessageLite& question) override {
    if (unreachable.count(peer) > 0) return 0;
    Asked asked{peer, ++lastQuestion_, PlatformSchema::messageIdOf(question) == 0x1A0100, {}};
    // The two questions have the same fields under the same numbers.
    EXPECT_TRUE(asked.message.ParseFromString(question.SerializeAsString()));
    questions.push_back(asked);
    return lastQuestion_;
  }

  void notify(PbUtility::PeerId peer, const google::protobuf::MessageLite& notice,
              const std::string& coalescingKey, Knows knows) override {
    notices.push_back(describe(peer, notice));
    known.push_back(knows);
    coalescingKeys.push_back(coalescingKey);
  }

  bool mayProvide(PbUtility::PeerId peer, const Variable&) const override {
    return strangers.count(peer) == 0;
  }
  bool expectsProvider(const Variable& variable) const override {
    return expected.count(variable.key().dottedName()) > 0;
  }

  std::chrono::steady_clock::time_point now() const override { return clock; }
  std::uint64_t after(std::chrono::milliseconds, std::function<void()> task) override {
    timers.emplace(++lastTimer_, std::move(task));
    return lastTimer_;
  }
  void cancel(std::uint64_t timer) override { timers.erase(timer); }

  void commit(uid_t, StoreTransaction transaction, CommitDone done) override {
    commits.emplace_back(std::move(transaction), std::move(done));
  }

  // The oldest commit under way succeeds or fails.
  void finishCommit() {
    const auto done = takeCommit();
    done(StoreStatus{}, ++revision);
  }
  void failCommit() {
    const auto done = takeCommit();
    done(StoreStatus{StoreCode::kDiskFull, "no space left"}, 0);
  }

  // All timers that run now.
  void letTimePass() {
    auto due = std::move(timers);
    timers.clear();
    for (auto& [number, task] : due) task();
  }

  std::set<PbUtility::PeerId> unreachable;
  // Peers whose users may write nothing.
  std::set<PbUtility::PeerId> strangers;
  // Names of variables whose provider is on its way.
  std::set<std::string> expected;
  std::chrono::steady_clock::time_point clock{};
  std::vector<Asked> questions;
  std::vector<std::string> notices;
  std::vector<std::string> coalescingKeys;
  std::vector<Knows> known;  // after each notice
  std::map<std::uint64_t, std::function<void()>> timers;
  std::deque<std::pair<StoreTransaction, CommitDone>> commits;
  std::uint64_t revision = 100;

 private:
  CommitDone takeCommit() {
    EXPECT_FALSE(commits.empty());
    CommitDone done = std::move(commits.front().second);
    commits.pop_front();
    return done;
  }

  template <typename Strings>
  static std::string joined(const Strings& strings) {
    std::string text;
    for (const std::string& string : strings) text += " " + string;
    return text;
  }

  static std::string describe(PbUtility::PeerId peer, const google::protobuf::MessageLite& notice) {
    const std::uint32_t id = PlatformSchema::messageIdOf(notice);
    const std::string bytes = notice.SerializeAsString();
    if (id == 0x1A0143) return describeValue(peer, bytes);
    if (id == 0x1A0253) return describeOptions(peer, bytes);
    if (id == 0x1A0333) return describeAccess(peer, bytes);
    return PlatformSchema::messageName(id) + " " + std::to_string(peer);
  }

  static std::string describeValue(PbUtility::PeerId peer, const std::string& bytes) {
    ConfigIF::ConfigChangedNtfy notice;
    EXPECT_TRUE(notice.ParseFromString(bytes));
    return named("value", peer, notice, notice.value().inst()) + " =" +
           joined(notice.value().values()) + (notice.is_default() ? " (default)" : "");
  }

  static std::string describeOptions(PbUtility::PeerId peer, const std::string& bytes) {
    ConfigIF::OptionsChangedNtfy notice;
    EXPECT_TRUE(notice.ParseFromString(bytes));
    return named("options", peer, notice, notice.inst()) + " =" + joined(notice.options()) + " [" +
           std::to_string(notice.default_index()) + "]";
  }

  static std::string describeAccess(PbUtility::PeerId peer, const std::string& bytes) {
    ConfigIF::AccessLevelChangedNtfy notice;
    EXPECT_TRUE(notice.ParseFromString(bytes));
    return named("access", peer, notice, notice.inst()) +
           (notice.has_read_role() ? " read " + std::to_string(notice.read_role()) : "") +
           (notice.has_write_role() ? " write " + std::to_string(notice.write_role()) : "");
  }

  std::uint32_t lastQuestion_ = 0;
  std::uint64_t lastTimer_ = 0;
};

}  // namespace ConfigSrv
