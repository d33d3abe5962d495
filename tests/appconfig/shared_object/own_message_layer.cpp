// A program with a message layer of its own in front of the shared library: PbUtils and all of
// MSG_* are here, and the library's receivers get their messages from these.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/registration.h"
#include "platform/messaging/msg.h"
#include "platform/messaging/pb_utils.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/recording_handlers.h"

struct MSG_Message {
  std::uint32_t id;
  std::string payload;
};

namespace {

constexpr MSG_Sender kSender = 0x100000002;  // more than 32 bits
std::string lastReply;

}  // namespace

const void* MSG_GetPayload(const MSG_Message* message) { return message->payload.data(); }
int MSG_GetPayloadBytes(const MSG_Message* message) {
  return static_cast<int>(message->payload.size());
}
std::uint32_t MSG_GetMessageId(const MSG_Message* message) { return message->id; }
void MSG_GetOwnerName(const MSG_Message* /*message*/, char* buffer, int size) {
  std::snprintf(buffer, static_cast<std::size_t>(size), "own-layer");
}
MSG_Sender MSG_GetSender(const MSG_Message* /*message*/) { return kSender; }
MSG_Message* msgUtil_buildMsgWithHeader(const google::protobuf::MessageLite& response,
                                        const MSG_Message* incoming, const void* /*context*/) {
  return new MSG_Message{incoming->id + 1, response.SerializeAsString()};
}
int MSG_SendMsg(const char* ownerName, MSG_Sender sender, MSG_Message* reply) {
  if (std::strcmp(ownerName, "own-layer") == 0 && sender == kSender) lastReply = reply->payload;
  delete reply;
  return 0;
}

namespace {

class OwnLayer : public PbUtility::PbUtils {
 public:
  void addRemoteEndpoint(const std::string& /*endpointName*/, int /*instance*/) override {}
  void addHandlers(const MSG_Callback* table) override {
    for (; table->receiver != nullptr; ++table) receivers_.push_back(*table);
  }
  std::string localEndpoint() const override { return "own"; }
  int send(const google::protobuf::MessageLite& /*request*/, const std::string& /*endpointName*/,
           unsigned int* /*sequence*/) override {
    return 0;
  }
  int sendWaitResponse(const google::protobuf::MessageLite& /*request*/,
                       google::protobuf::MessageLite* /*response*/,
                       const std::string& /*endpointName*/) override {
    return 1;  // no service
  }

  void deliver(std::uint32_t id, const google::protobuf::MessageLite& payload) const {
    const MSG_Message message{id, payload.SerializeAsString()};
    for (const MSG_Callback& r : receivers_) {
      if (r.firstId <= id && id <= r.lastId) r.receiver(r.userData, &message);
    }
  }

 private:
  std::vector<MSG_Callback> receivers_;
};

void name(ConfigIF::InstValue* record, const char* value) {
  for (const char* const step : {"net", "mtu"}) {
    record->mutable_inst()->add_path()->set_name(step);
  }
  record->add_values(value);
}

// A notice reaches the handler, and the cache: nothing else could answer this read.
bool aNoticeArrives(const OwnLayer& layer, TestSupport::RecordingConsumer& consumer) {
  const std::string link = "PlatCfgSvc0-" + std::to_string(getpid()) + "-0";
  ConfigIF::ConfigChangedNtfy notice;
  notice.set_callback_identity(link);
  name(notice.mutable_value(), "1400");
  layer.deliver(0x1A0143, notice);
  return consumer.lines.take() ==
             std::vector<std::string>{"changed net[0].mtu[0] {1400} " + link} &&
         AppConfig::AppCfgManager::getInstance()->getConfigVar("net", 0, "mtu", 0) == "1400";
}

// A question reaches the provider, and its answer the sender of the question.
bool aQuestionIsAnswered(const OwnLayer& layer) {
  ConfigIF::DynamicValidateReq question;
  name(question.mutable_value(), "9000");
  layer.deliver(0x1A0150, question);
  ConfigIF::DynamicValidateRsp answer;
  return answer.ParseFromString(lastReply) && answer.result().messages_size() == 1 &&
         answer.result().messages(0) == "no jumbo frames";
}

}  // namespace

int main() {
  OwnLayer layer;
  TestSupport::RecordingConsumer consumer;
  TestSupport::RecordingProvider provider;
  provider.verdict = [](ConfigResult* result) {
    result->addResultMessage("no jumbo frames");
    return result->fillConfigResult(false, eErrVetoed, false);
  };
  AppConfig::AppCfgManager::getInstance()->setPbInterface(&layer);
  registerHandler("net", "mtu", &consumer, nullptr);
  registerHandler("net", "mtu", &provider, nullptr);
  return aNoticeArrives(layer, consumer) && aQuestionIsAnswered(layer) ? 0 : 1;
}
