#include "configsrv/changes/internal/change_shares.h"

#include "configsrv/changes/changes_options.h"
#include "configsrv/changes/internal/change_check.h"

namespace ConfigSrv {

using PbUtility::Owner;

namespace {

std::string withAdvice(const std::string& refusal) {
  return refusal.empty() ? refusal : refusal + ": try again when some of them have ended";
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

std::string ChangeShares::refusal(Owner owner, std::size_t bytes) const {
  const std::string refusal = count_.refusal(owner);
  return withAdvice(refusal.empty() ? bytes_.refusal(owner, bytes) : refusal);
}

std::string ChangeShares::reserve(Owner owner, std::size_t bytes) {
  const std::string refusal = bytes_.refusal(owner, bytes);
  if (refusal.empty()) bytes_.add(owner, bytes);
  return withAdvice(refusal);
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
