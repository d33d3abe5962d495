#include "platform/schema/message_ids.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "platform/schema/config_if.pb.h"

namespace PlatformSchema {
namespace {

using testing::ElementsAreArray;

using IdByName = std::map<std::string, std::uint32_t>;

// Every message of the protocol, made to say its id by its type.
IdByName idsToldByType() {
  IdByName ids;
#define TELL(name) ids[#name] = messageIdOf(ConfigIF::name())
  TELL(OnChangeReq);
  TELL(OnChangeRsp);
  TELL(ReadReq);
  TELL(ReadRsp);
  TELL(BatchReadReq);
  TELL(BatchReadRsp);
  TELL(WriteReq);
  TELL(WriteRsp);
  TELL(ConfigChangedNtfy);
  TELL(DynamicValidateReq);
  TELL(DynamicValidateRsp);
  TELL(ValidateReq);
  TELL(ValidateRsp);
  TELL(ResetValueReq);
  TELL(ResetValueRsp);
  TELL(ResetNodeValueReq);
  TELL(ResetNodeValueRsp);
  TELL(ReadAttributesReq);
  TELL(ReadAttributesRsp);
  TELL(ResetAttributeReq);
  TELL(ResetAttributeRsp);
  TELL(AttributeChangedNtfy);
  TELL(RegisterClientCallbackReq);
  TELL(RegisterClientCallbackRsp);
  TELL(UnregisterClientCallbackReq);
  TELL(UnregisterClientCallbackRsp);
  TELL(UnregisterAllClientCallbacksReq);
  TELL(UnregisterAllClientCallbacksRsp);
  TELL(GetAttributeOptionsReq);
  TELL(GetAttributeOptionsRsp);
  TELL(SetAttributeOptionsReq);
  TELL(SetAttributeOptionsRsp);
  TELL(OptionsChangedNtfy);
  TELL(GetDefaultOptionsReq);
  TELL(GetDefaultOptionsRsp);
  TELL(SubmitReq);
  TELL(SubmitRsp);
  TELL(SubmitNtfy);
  TELL(GetAccessLevelsReq);
  TELL(GetAccessLevelsRsp);
  TELL(SetAccessLevelsReq);
  TELL(SetAccessLevelsRsp);
  TELL(AccessLevelChangedNtfy);
  TELL(GetValueOptionsAccessReq);
  TELL(GetValueOptionsAccessRsp);
  TELL(BatchGetValueOptionsAccessReq);
  TELL(BatchGetValueOptionsAccessRsp);
  TELL(ListReq);
  TELL(ListRsp);
  TELL(StatusReq);
  TELL(StatusRsp);
  TELL(ClientsReq);
  TELL(ClientsRsp);
  TELL(MonitorReq);
  TELL(MonitorRsp);
  TELL(MonitorNtfy);
  TELL(StoreSnapshotReq);
  TELL(StoreSnapshotRsp);
  TELL(StoreRestoreReq);
  TELL(StoreRestoreRsp);
#undef TELL
  return ids;
}

// The ids as config_if.proto names them: the last "0x1A...." comment before each message.
IdByName idsToldByProtocolReference() {
  const std::regex idComment("^// (0x1A[0-9A-F]{4})\\b.*");
  const std::regex opening("^message (\\w+(Req|Rsp|Ntfy)) .*");
  std::ifstream file(APPCONFIG_CONFIG_IF_PROTO);
  IdByName ids;
  std::uint32_t id = kNoMessageId;
  std::smatch match;
  for (std::string line; std::getline(file, line);) {
    if (std::regex_match(line, match, idComment)) {
      id = static_cast<std::uint32_t>(std::stoul(match[1], nullptr, 16));
    } else if (std::regex_match(line, match, opening)) {
      ids[match[1]] = std::exchange(id, kNoMessageId);
    }
  }
  return ids;
}

char kindDigit(const std::string& name) {
  const auto endsWith = [&name](const std::string& ending) {
    return name.size() >= ending.size() &&
           name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
  };
  if (endsWith("Req")) return '0';
  if (endsWith("Rsp")) return '1';
  return endsWith("Ntfy") ? '3' : '?';
}

TEST(MessageIdsTest, TheIdsThatReceiversAreKeyedByNeverMove) {
  EXPECT_EQ(messageIdOf(ConfigIF::DynamicValidateReq()), 0x1A0150u);
  EXPECT_EQ(messageIdOf(ConfigIF::OnChangeReq()), 0x1A0100u);
  EXPECT_EQ(messageIdOf(ConfigIF::ConfigChangedNtfy()), 0x1A0143u);
  EXPECT_EQ(messageIdOf(ConfigIF::AttributeChangedNtfy()), 0x1A01A3u);
  EXPECT_EQ(messageIdOf(ConfigIF::OptionsChangedNtfy()), 0x1A0253u);
  EXPECT_EQ(messageIdOf(ConfigIF::SubmitNtfy()), 0x1A0273u);
  EXPECT_EQ(messageIdOf(ConfigIF::AccessLevelChangedNtfy()), 0x1A0333u);
}

TEST(MessageIdsTest, TheTableAndTheProtocolReferenceAgree) {
  const IdByName reference = idsToldByProtocolReference();
  ASSERT_FALSE(reference.empty()) << "nothing read from " APPCONFIG_CONFIG_IF_PROTO;
  EXPECT_EQ(idsToldByType(), reference);
}

TEST(MessageIdsTest, TheWalkHasEveryIdOnceInAscendingOrder) {
  std::vector<std::uint32_t> ids;
  for (const auto& [name, id] : idsToldByType()) ids.push_back(id);
  std::sort(ids.begin(), ids.end());
  EXPECT_THAT(messageIds(), ElementsAreArray(ids));
  EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
}

TEST(MessageIdsTest, EveryIdLeadsToTheNameOfTheMessageThatCarriesIt) {
  for (const auto& [name, id] : idsToldByType()) EXPECT_EQ(messageName(id), name);
}

TEST(MessageIdsTest, TheLastDigitTellsRequestResponseAndNoticeApart) {
  for (const std::uint32_t id : messageIds()) {
    const std::string name = messageName(id);
    EXPECT_EQ("0123456789ABCDEF"[id & 0xFu], kindDigit(name)) << name;
    EXPECT_EQ(id >> 16, 0x1Au) << name;
  }
}

TEST(MessageIdsTest, EveryRequestHasItsResponseUnderTheNextId) {
  const IdByName ids = idsToldByType();
  for (const auto& [name, id] : ids) {
    if (kindDigit(name) != '0') continue;
    EXPECT_EQ(messageName(id + 1), name.substr(0, name.size() - 3) + "Rsp");
  }
}

TEST(MessageIdsTest, ABuildingBlockHasNoIdOfItsOwn) {
  EXPECT_EQ(messageIdOf(ConfigIF::Node()), kNoMessageId);
  EXPECT_EQ(messageIdOf(ConfigIF::InstValue()), kNoMessageId);
  EXPECT_EQ(messageIdOf(ConfigIF::ReturnMessage()), kNoMessageId);
}

TEST(MessageIdsTest, AnUnknownIdIsNamedByItsNumber) {
  EXPECT_EQ(messageName(0x1A0999), "0x1A0999");
  EXPECT_EQ(messageName(kNoMessageId), "0x000000");
  EXPECT_EQ(messageName(0xFFFFFFFF), "0xFFFFFFFF");
}

TEST(MessageIdsTest, RegistrationsAndMonitorsAloneAreRepeatedAndTheirWithdrawalsAreKnown) {
  for (const std::uint32_t id : messageIds()) {
    const std::string name = messageName(id);
    EXPECT_EQ(isRepeatedOnReconnect(id),
              name == "RegisterClientCallbackReq" || name == "MonitorReq")
        << name;
    EXPECT_EQ(withdrawsOneRepeated(id), name == "UnregisterClientCallbackReq") << name;
    EXPECT_EQ(withdrawsAllRepeated(id), name == "UnregisterAllClientCallbacksReq") << name;
  }
}

}  // namespace
}  // namespace PlatformSchema
