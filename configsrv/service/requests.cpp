#include "configsrv/service/internal/requests.h"

#include <utility>

#include "platform/schema/message_ids.h"

namespace ConfigSrv {

Requests::Requests(const RequestContext& with)
    : slices_([&server = with.server](uid_t user, std::function<void()> task) {
        server.later(user, std::move(task));
      }),
      frame_(with.log, with.access, with.model, with.tap, with.audit != nullptr),
      reads_(frame_, with.model, with.subscriptions),
      changes_(frame_, with.log, with.model, with.changes, slices_, with.audit),
      callbacks_(frame_, {with.log, with.access, with.model, with.subscriptions, with.announcer,
                          with.changes, with.providers, with.server, slices_}),
      tools_(frame_, {with.options, with.standing, with.model, with.subscriptions, with.announcer,
                      with.changes, reads_, with.server, with.store}),
      monitors_(frame_, with.monitor),
      stores_(frame_, {with.log, with.model, with.server, with.options.storeFile, with.withStore,
                       with.restart}) {}

// What comes most often is asked first.
void Requests::handle(const Incoming& incoming) {
  const bool isTaken = reads_.handle(incoming) || changes_.handle(incoming) ||
                       callbacks_.handle(incoming) || tools_.handle(incoming) ||
                       monitors_.handle(incoming) || stores_.handle(incoming);
  if (isTaken) return;
  const std::string text =
      PlatformSchema::messageName(incoming.messageId) + " is no request that this service answers";
  frame_.refuse(incoming, eErrNotSupported, text);
}

}  // namespace ConfigSrv
