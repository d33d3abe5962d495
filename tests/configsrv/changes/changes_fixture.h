// ChangesFixture: changes over a small model, with a scripted world and three peers.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "configsrv/changes/changes.h"
#include "tests/configsrv/changes/scripted_host.h"
#include "tests/support/definition_builder.h"

namespace ConfigSrv {

constexpr PbUtility::PeerId kWriter = 1;
constexpr PbUtility::PeerId kProvider = 2;
constexpr PbUtility::PeerId kSecondProvider = 3;

// One change and how it ended, once it has.
struct Attempt {
  std::optional<ChangeOutcome> outcome;

  bool ended() const { return outcome.has_value(); }
  eErrorT error() const { return outcome ? outcome->code : eErrFailed; }
  bool unchanged() const { return outcome && outcome->unchanged; }
  std::string text() const {
    if (!outcome) return {};
    std::string all = outcome->text.empty() ? "" : outcome->text + "\n";
    for (const std::string& reason : outcome->reasons) all += reason + "\n";
    return all;
  }
};

class ChangesFixture : public testing::Test {
 protected:
  static Definitions definitions() {
    using TestSupport::defined;
    return Definitions({
        defined("net.mtu").ofType(ValueType::Int).between(68, 9000).withDefault({"1500"}),
        defined("net.name").withDefault({"gateway"}),
        defined("net.serial").withDefault({"1234"}).readOnly(),
        defined("net.secret")
            .withDefault({"hidden"})
            .readBy(AppConfig::eRoleFactory)
            .writtenBy(AppConfig::eRoleUser),
        defined("net.admin").withDefault({"x"}).writtenBy(AppConfig::eRoleInstaller),
        defined("net.mode")
            .ofType(ValueType::Enumeration)
            .withDefault({"auto"})
            .withOptions({"auto", "manual"}),
        defined("3:engine.speed").withDefault({"0"}),
    });
  }

  using Changed = std::shared_ptr<Attempt>;

  Changed submit(Requester by, StoreChange what) {
    auto attempt = std::make_shared<Attempt>();
    changes_->submit({std::move(by), std::move(what)},
                     [attempt](const ChangeOutcome& outcome) { record(*attempt, outcome); });
    return attempt;
  }
  Changed validate(Requester by, const std::string& key, std::list<std::string> value) {
    auto attempt = std::make_shared<Attempt>();
    changes_->validate({std::move(by), setTo(key, std::move(value))},
                       [attempt](const ChangeOutcome& outcome) { record(*attempt, outcome); });
    return attempt;
  }
  Changed write(const std::string& key, const std::string& value) {
    return submit(writer(), setTo(key, {value}));
  }
  Changed writeFrom(PbUtility::PeerId peer, bool insideReceiver, const std::string& key,
                    const std::string& value) {
    return submit({peer, "client", AppConfig::eRoleUser, insideReceiver}, setTo(key, {value}));
  }
  // A write that nobody has to be asked about, up to its end.
  Changed written(const std::string& key, const std::string& value) {
    Changed attempt = write(key, value);
    host_.finishCommit();
    return attempt;
  }

  static StoreChange setTo(const std::string& key, std::list<std::string> value) {
    return {TestSupport::keyOf(key), StoreChange::SetValue{std::move(value)}};
  }
  static Requester writer(AppConfig::SecurityRole role = AppConfig::eRoleUser) {
    return {kWriter, "writer", role, false};
  }

  void registerFor(PbUtility::PeerId peer, ConfigIF::CallbackType type, const std::string& name,
                   AppConfig::SecurityRole role = AppConfig::eRoleUser,
                   const std::string& identity = "link") {
    ASSERT_TRUE(
        subscriptions_.add(peer, {}, {name, type, identity, "client-" + std::to_string(peer), role})
            .ok());
  }
  void provide(PbUtility::PeerId peer, const std::string& name) {
    registerFor(peer, ConfigIF::CALLBACK_DYNAMIC_VALIDATE, name);
    registerFor(peer, ConfigIF::CALLBACK_ON_CHANGE, name);
  }

  // The last question, and answers to it.
  const ScriptedHost::Asked& question() { return host_.questions.back(); }
  void answer(CommonIF::eErrorType error, const std::string& message = {}) {
    ConfigIF::ReturnMessage result;
    result.set_error(error);
    if (!message.empty()) result.add_messages(message);
    answerWith(result);
  }
  void answerWith(const ConfigIF::ReturnMessage& result) {
    const ScriptedHost::Asked asked = question();
    ConfigIF::DynamicValidateRsp response;
    *response.mutable_result() = result;
    changes_->onAnswer(asked.peer, asked.number, asked.onChange ? 0x1A0101 : 0x1A0151,
                       response.SerializeAsString());
  }
  void questionEnds(bool peerGone = false) {
    const ScriptedHost::Asked asked = question();
    changes_->onQuestionDone(asked.peer, asked.number, peerGone);
  }
  void agree() {
    answer(CommonIF::ERROR_NONE);
    questionEnds();
  }

  std::string valueOf(const std::string& key) {
    return model_.find(TestSupport::keyOf(key))->value().front();
  }
  const Variable& variable(const std::string& key) { return *model_.find(TestSupport::keyOf(key)); }

  Model model_{definitions()};
  Subscriptions subscriptions_;
  ScriptedHost host_;
  std::vector<std::string> lines_;
  Log log_{LogLevel::Debug, [this](LogLevel, const std::string& line) { lines_.push_back(line); }};
  Announcer announcer_{model_, subscriptions_, host_};
  std::unique_ptr<Changes> changes_ =
      std::make_unique<Changes>(model_, subscriptions_, announcer_, host_, log_);

 private:
  static void record(Attempt& attempt, const ChangeOutcome& outcome) {
    EXPECT_FALSE(attempt.ended()) << "a change ended twice";
    attempt.outcome = outcome;
  }
};

}  // namespace ConfigSrv
