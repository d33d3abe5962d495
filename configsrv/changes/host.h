// Host: what changes need of the world: peers to ask and to tell, a clock, a store.
//
// The service implements it with the message layer's serving side and the commit queue; a test
// with a script.
//
// Threads:  one at a time, whichever runs the server's loop. Functions that are handed over are
//           called in it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "configsrv/store/commit_queue.h"
#include "platform/messaging/serving/peer.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace ConfigSrv {

class Variable;

class Host {
 public:
  virtual ~Host() = default;

  // Asks a peer. The question's number, or 0 when the peer cannot be reached.
  virtual std::uint32_t ask(PbUtility::PeerId peer,
                            const google::protobuf::MessageLite& question) = 0;
  // What a peer knows once it has been told: all up to the present revision, or all before it since
  // another notice of the same change may follow. A connection may be lost between the two.
  enum class Knows { AllOfThis, AllBefore };
  // Queues a notice for a peer; of waiting ones with the same key only the newest counts.
  virtual void notify(PbUtility::PeerId peer, const google::protobuf::MessageLite& notice,
                      const std::string& coalescingKey, Knows knows) = 0;

  // Whether the kernel's word for the peer is good enough to be asked about changes of the variable:
  // who may refuse every value of it has to be one who may write it.
  virtual bool mayProvide(PbUtility::PeerId peer, const Variable& variable) const = 0;
  // Whether a provider of the variable is expected back any moment: it was there when the service
  // ended. Changes::providersCame() tells that the answer may have become another.
  virtual bool expectsProvider(const Variable& variable) const = 0;

  // Runs a task later. The number, never 0, cancels it.
  virtual std::uint64_t after(std::chrono::milliseconds delay, std::function<void()> task) = 0;
  virtual void cancel(std::uint64_t timer) = 0;

  virtual std::chrono::steady_clock::time_point now() const {
    return std::chrono::steady_clock::now();
  }

  // Makes a user's changes durable, all or none; `done` tells when.
  virtual void commit(uid_t user, StoreTransaction transaction, CommitDone done) = 0;
};

}  // namespace ConfigSrv
