#include "configsrv/changes/internal/change_shares.h"

#include <utility>

#include "configsrv/changes/changes_options.h"
#include "configsrv/changes/internal/change_check.h"

namespace ConfigSrv {

using PbUtility::Owner;

namespace {

Base::Status<> withAdvice(Base::Status<> room) {
  if (!room.ok()) room.text += ": try again when some of them have ended";
  return room;
}

}  // namespace

ChangeShares::ChangeShares(const ChangesOptions& options)
    : count_("changes under way", options.underWay, options.own),
      bytes_("bytes of changes under way", options.bytesUnderWay, options.own) {}

std::size_t ChangeShares::bytesOf(const ChangeRequest& request) {
  return kChangeBytes + request.by.clientName.size() + request.what.key.group().size() +
         request.what.key.name().size() + ConfigSrv::bytesOf(request.what) +
         stringsOf(request.what) * kStringBytes;
}

Base::Status<> ChangeShares::room(Owner owner, std::size_t bytes) const {
  Base::Status<> room = count_.room(owner);
  return withAdvice(room.ok() ? bytes_.room(owner, bytes) : std::move(room));
}

Base::Status<> ChangeShares::reserve(Owner owner, std::size_t bytes) {
  Base::Status<> room = bytes_.room(owner, bytes);
  if (room.ok()) bytes_.add(owner, bytes);
  return withAdvice(std::move(room));
}

void ChangeShares::add(Owner owner, std::size_t bytes) {
  count_.add(owner);
  bytes_.add(owner, bytes);
}

void ChangeShares::remove(Owner owner, std::size_t bytes) {
  count_.remove(owner);
  bytes_.remove(owner, bytes);
}

}  // namespace ConfigSrv
