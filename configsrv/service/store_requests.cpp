// Both requests work on the thread that makes changes durable, since the store is that thread's alone:
// reads and questions go on meanwhile, and changes wait.
#include "configsrv/service/internal/store_requests.h"

#include <unistd.h>

#include <filesystem>
#include <memory>

#include "configsrv/service/internal/results.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {
namespace {

// What a request about the store came to.
struct Result {
  StoreStatus status;
  std::uint64_t revision = 0;
};

eErrorT errorOf(StoreCode code) {
  switch (code) {
    case StoreCode::kOk:
      return eErrNone;
    case StoreCode::kUnusable:
    case StoreCode::kNewerFormat:
      return eErrInvalidValue;
    default:
      return eErrStorage;
  }
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

// A copy that is no good must not wait for the next start.
Result checkCopy(const std::string& storeFile) {
  Result result;
  result.status = Store::checkRestore({storeFile}, &result.revision);
  if (!result.status.ok()) ::unlink((storeFile + ".restore").c_str());
  return result;
}

}  // namespace

bool StoreRequests::handle(const Incoming& incoming) {
  switch (incoming.messageId) {
    case PlatformSchema::kStoreSnapshotReq:
      return frame_.answerLater<ConfigIF::StoreSnapshotRsp, &StoreRequests::storeSnapshot>(
          *this, incoming);
    case PlatformSchema::kStoreRestoreReq:
      return frame_.answerLater<ConfigIF::StoreRestoreRsp, &StoreRequests::storeRestore>(*this,
                                                                                         incoming);
    default:
      return false;
  }
}

// Roles are for variables. A store holds all of them, secret ones too, and its files are those of the
// service's own user; who else may become that user is root.
bool StoreRequests::mayManageStore(const Call& call, ConfigIF::ReturnMessage& result) const {
  const PbUtility::Peer* peer = with_.server.peer(call.by.peer);
  if (peer != nullptr && (peer->uid == 0 || peer->uid == ::geteuid())) return true;
  setError(result, eErrDenied,
           "the store is for root and the service's own user (" + std::to_string(::geteuid()) +
               ") alone" +
               (peer == nullptr ? "" : ", and this is user " + std::to_string(peer->uid)));
  return false;
}

void StoreRequests::storeSnapshot(const Call& call, const ConfigIF::StoreSnapshotReq&) {
  ConfigIF::StoreSnapshotRsp refusal;
  if (!mayManageStore(call, *refusal.mutable_result())) return frame_.respond(call.id, refusal);
  const auto made = std::make_shared<Result>();
  with_.withStore(
      [made](Store& store) {
        made->status = store.snapshot();
        made->revision = store.revision();
      },
      [this, made, id = call.id] {
        ConfigIF::StoreSnapshotRsp response;
        if (!made->status.ok())
          setError(*response.mutable_result(), errorOf(made->status.code), made->status.text);
        response.set_file(absolutePath(with_.file + ".snapshot"));
        response.set_revision(made->revision);
        frame_.respond(id, response);
      });
}

void StoreRequests::storeRestore(const Call& call, const ConfigIF::StoreRestoreReq&) {
  ConfigIF::StoreRestoreRsp refusal;
  if (!mayManageStore(call, *refusal.mutable_result())) return frame_.respond(call.id, refusal);
  const auto checked = std::make_shared<Result>();
  const std::string who = call.by.clientName;
  with_.withStore([checked, file = with_.file](Store&) { *checked = checkCopy(file); },
                  [this, checked, id = call.id, who] {
                    ConfigIF::StoreRestoreRsp response;
                    response.set_revision(checked->revision);
                    response.set_revision_before(with_.model.revision());
                    if (checked->status.ok()) {
                      with_.log.info(who + " restores a copy of the store: starting anew with it");
                    } else {
                      const eErrorT error = errorOf(checked->status.code);
                      setError(*response.mutable_result(), error, checked->status.text);
                    }
                    frame_.respond(id, response);
                    if (checked->status.ok()) with_.restart();
                  });
}

}  // namespace ConfigSrv
