// Requests: what the service answers to each request of the protocol.
//
// One table leads from a message id to one member function. Answers that need nobody else are given
// at once; changes, validations and what takes the store as a whole answer when they have ended.
//
// Errors   a payload that is no message of its kind, and a request that is none, are refused as a
//          whole, with a line in the log. Everything else is an error code in the answer; that a
//          request unfolds to too much has a line in the log as well.
// Access   before a request is looked at, its role is held against what the kernel says of the
// peer. Threads  one at a time, whichever runs the server's loop. Owns nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "configsrv/access/access_policy.h"
#include "configsrv/audit/audit_trail.h"
#include "configsrv/changes/announcer.h"
#include "configsrv/changes/changes.h"
#include "configsrv/log/log.h"
#include "configsrv/model/model.h"
#include "configsrv/monitor/monitor.h"
#include "configsrv/providers/provider_memory.h"
#include "configsrv/service/internal/change_batch.h"
#include "configsrv/service/internal/owed_notices.h"
#include "configsrv/service/internal/slices.h"
#include "configsrv/service/service.h"
#include "configsrv/store/commit_queue.h"
#include "configsrv/store/store.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "platform/messaging/server.h"
#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {

// What answering needs; everything outlives the Requests.
struct RequestContext {
  const ServiceOptions& options;
  const Log& log;
  const AccessPolicy& access;
  Model& model;
  Subscriptions& subscriptions;
  Announcer& announcer;
  Changes& changes;
  Monitor& monitor;
  PbUtility::Server& server;
  ProviderMemory& providers;
  // Null: nothing is recorded.
  AuditTrail* audit;
  // For its counters alone; all else of it is another thread's.
  const Store& store;
  // Does work with the store on the thread that makes changes durable, then calls `done` in the loop.
  std::function<void(CommitQueue::Work work, std::function<void()> done)> withStore;
  // Ends this run of the service, for another with the store that is there then.
  std::function<void()> restart;
};

class Requests {
 public:
  // A client's name is for logs and for providers to read; what is longer than this is cut.
  static constexpr std::size_t kMaxClientName = 256;
  // Records of one page of a listing, however many are asked for.
  static constexpr std::size_t kMaxListed = 1024;
  // Variables that a registration is held against, or told of, before the others have their turn.
  static constexpr std::size_t kVariablesAtOnce = 256;

  explicit Requests(RequestContext context);

  void handle(const PbUtility::IncomingRequest& request);

  // The revision that a notice to the peer may carry: see OwedNotices.
  std::uint64_t carried(PbUtility::PeerId peer, std::uint64_t revision) const {
    return owed_->carried(peer, revision);
  }

 private:
  using Incoming = PbUtility::IncomingRequest;
  using Handler = void (Requests::*)(const Incoming&);

  // A request whose role has been checked.
  struct Call {
    PbUtility::RequestId id;
    Requester by;
    // FrameHeader::revision.
    std::uint64_t knownRevision;
    // IncomingRequest::overDelivery.
    bool overDelivery;
  };

  static Handler handlerOf(std::uint32_t messageId);

  // --- The frame around every request: parse, check the role, answer. ---
  template <typename Request, typename Response,
            void (Requests::*answer)(const Call&, const Request&, Response&)>
  void answerNow(const Incoming& incoming);
  template <typename Request, typename Response,
            void (Requests::*answer)(const Call&, const Request&)>
  void answerLater(const Incoming& incoming);
  // False, and answered, when the payload is no such message (by a refusal) or passes a limit (by the
  // response with LIMIT in its result).
  bool parse(const Incoming& incoming, google::protobuf::MessageLite& request,
             google::protobuf::MessageLite& response, ConfigIF::ReturnMessage& result);
  bool admit(const Incoming& incoming, const std::string& clientName,
             CommonIF::eSecurityRole wireRole, Call& call, ConfigIF::ReturnMessage& result);
  void respond(const PbUtility::RequestId& id, const google::protobuf::MessageLite& response);
  void logRefusal(const Incoming& incoming, const std::string& text);
  // Logs it as well.
  void refuse(const Incoming& incoming, eErrorT error, const std::string& text);

  // --- Finding variables ---
  // Null, and the error in the result, when there is none or the caller may not read it.
  const Variable* find(const ConfigIF::Inst& inst, ConfigIF::ReturnMessage& result) const;
  const Variable* findReadable(const Call& call, const ConfigIF::Inst& inst,
                               ConfigIF::ReturnMessage& result) const;
  const Variable* findByDottedName(const std::string& name) const;
  bool mayRead(const Call& call, const Variable& variable, ConfigIF::ReturnMessage& result) const;

  // --- Reading (read_requests.cpp) ---
  void read(const Call&, const ConfigIF::ReadReq&, ConfigIF::ReadRsp&);
  void batchRead(const Call&, const ConfigIF::BatchReadReq&, ConfigIF::BatchReadRsp&);
  void getOptions(const Call&, const ConfigIF::GetAttributeOptionsReq&,
                  ConfigIF::GetAttributeOptionsRsp&);
  void getDefaultOptions(const Call&, const ConfigIF::GetDefaultOptionsReq&,
                         ConfigIF::GetDefaultOptionsRsp&);
  void getAccessLevels(const Call&, const ConfigIF::GetAccessLevelsReq&,
                       ConfigIF::GetAccessLevelsRsp&);
  void readAttributes(const Call&, const ConfigIF::ReadAttributesReq&,
                      ConfigIF::ReadAttributesRsp&);
  void getRecord(const Call&, const ConfigIF::GetValueOptionsAccessReq&,
                 ConfigIF::GetValueOptionsAccessRsp&);
  void getRecords(const Call&, const ConfigIF::BatchGetValueOptionsAccessReq&,
                  ConfigIF::BatchGetValueOptionsAccessRsp&);
  bool fillRecord(const Call& call, const ConfigIF::Inst& inst, ConfigIF::FullRecord& record,
                  ConfigIF::ReturnMessage& result) const;

  // --- Changing (change_requests.cpp) ---
  using Wanted = decltype(StoreChange::what);
  void write(const Call&, const ConfigIF::WriteReq&);
  void validate(const Call&, const ConfigIF::ValidateReq&);
  void resetValue(const Call&, const ConfigIF::ResetValueReq&);
  void resetNodeValue(const Call&, const ConfigIF::ResetNodeValueReq&);
  void setOptions(const Call&, const ConfigIF::SetAttributeOptionsReq&);
  void setAccessLevels(const Call&, const ConfigIF::SetAccessLevelsReq&);
  void resetAttribute(const Call&, const ConfigIF::ResetAttributeReq&);
  template <typename Response>
  ChangeDone answering(const Call& call);
  template <typename Response>
  ChangeBatch::Done answeringAll(const Call& call);
  ChangeDone logging(const Call& call, const ConfigVar& key, ChangeDone answer);
  // One change of the variable that a path names.
  void submitOne(const Call& call, const ConfigIF::Inst& inst, Wanted what, ChangeDone answer);
  // The same change of everything that a dotted name covers.
  void submitBelow(const Call& call, const std::string& name, const Wanted& what,
                   const ChangeBatch::Done& answer);

  // A change whose role was not granted is recorded as well; what changes nothing is not.
  template <typename Request>
  void recordDenied(const Call&, const Request&, const ChangeOutcome&) {}
  void recordDenied(const Call&, const ConfigIF::WriteReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::ResetValueReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::ResetNodeValueReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::SetAttributeOptionsReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::SetAccessLevelsReq&, const ChangeOutcome&);
  void recordDenied(const Call&, const ConfigIF::ResetAttributeReq&, const ChangeOutcome&);
  void recordDenied(const Call& call, const ConfigIF::Inst& inst, Wanted what,
                    const ChangeOutcome& outcome);

  // --- Callbacks (callback_requests.cpp) ---
  // A registration on its way, from the request to the last notice that is owed to it.
  struct Registering;
  using RegisteringPtr = std::shared_ptr<Registering>;
  // Returns whether there is more to do.
  using Step = bool (Requests::*)(const RegisteringPtr&);

  bool isProvider(const ConfigIF::RegisterClientCallbackReq& request) const;
  void registerCallback(const Call&, const ConfigIF::RegisterClientCallbackReq&);
  void refuseRegistration(const Registering& registering, eErrorT error, const std::string& text);
  void refuseProvider(const Call& call, const Registration& registration);
  void runInSlices(const RegisteringPtr& registering, Step step);
  // Whether the caller may be asked about anything that the name covers now.
  bool findProvided(const RegisteringPtr& registering);
  void takeRegistration(const RegisteringPtr& registering);
  void answerRegistration(const Registering& registering);
  // Tells a registration what it has missed of a variable.
  void bringUpToDate(const Call&, const Registration&, const Variable&);
  // Tells it what it has missed of all that it covers.
  bool catchUp(const RegisteringPtr& registering);
  void unregisterCallback(const Call&, const ConfigIF::UnregisterClientCallbackReq&,
                          ConfigIF::UnregisterClientCallbackRsp&);
  void unregisterAll(const Incoming& incoming);
  void submit(const Call&, const ConfigIF::SubmitReq&, ConfigIF::SubmitRsp&);

  // --- For tools (tool_requests.cpp) ---
  void list(const Call&, const ConfigIF::ListReq&, ConfigIF::ListRsp&);
  bool findListed(const ConfigIF::ListReq&, std::vector<const Variable*>& listed,
                  ConfigIF::ReturnMessage&) const;
  void status(const Call&, const ConfigIF::StatusReq&, ConfigIF::StatusRsp&);
  void clients(const Call&, const ConfigIF::ClientsReq&, ConfigIF::ClientsRsp&);
  void monitor(const Call&, const ConfigIF::MonitorReq&, ConfigIF::MonitorRsp&);

  // --- The store as a whole (store_requests.cpp) ---
  bool mayManageStore(const Call& call, ConfigIF::ReturnMessage& result) const;
  void storeSnapshot(const Call&, const ConfigIF::StoreSnapshotReq&);
  void storeRestore(const Call&, const ConfigIF::StoreRestoreReq&);

  RequestContext with_;
  Slices slices_;
  // Also each registration's that is owed notices.
  const std::shared_ptr<OwedNotices> owed_ = std::make_shared<OwedNotices>();
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::uint64_t reads_ = 0;
};

// Writes an error and its text into a result.
void setError(ConfigIF::ReturnMessage& result, eErrorT error, const std::string& text);
// Writes how a change ended into a result.
void setOutcome(ConfigIF::ReturnMessage& result, const ChangeOutcome& outcome);
// Lower case, as the names of all variables are.
std::string lowerCase(const std::string& name);

}  // namespace ConfigSrv
