// A variable has two parts that are written, its value and its options; each has a number of its own
// (twice the variable's index, and one more), what it takes now, and whose that is. Users are counted
// by Shares. Processes are counted here, because they end: what a process wrote then still counts for
// its user, and for no process that gets the same number later.
#include "configsrv/changes/written_shares.h"

#include <algorithm>
#include <limits>

namespace ConfigSrv {
namespace {

using PbUtility::Owner;
using PbUtility::ShareLimits;

constexpr pid_t kNoProcess = 0;

ShareLimits withoutProcesses(ShareLimits limits) {
  limits.perProcess = std::numeric_limits<std::size_t>::max();
  return limits;
}

Owner userOf(Owner owner) { return {owner.uid, kNoProcess}; }

template <typename Strings>
std::size_t bytesOf(const Strings& strings) {
  std::size_t bytes = WrittenShares::kPartBytes;
  for (const std::string& string : strings) bytes += WrittenShares::kStringBytes + string.size();
  return bytes;
}

std::uint64_t valueOf(std::uint32_t variable) { return 2 * std::uint64_t{variable}; }
std::uint64_t optionsOf(std::uint32_t variable) { return valueOf(variable) + 1; }

}  // namespace

WrittenShares::WrittenShares(const Model& model, ShareLimits limits, uid_t own)
    : model_(model),
      perProcess_(limits.perProcess),
      shares_("bytes of values and options", withoutProcesses(limits), own) {}

void WrittenShares::countStored() {
  const CoveredVariables all = model_.below("");
  for (std::size_t i = 0; i < all.size(); ++i) {
    const Variable& variable = all[i];
    const std::uint32_t index = model_.indexOf(variable);
    if (!variable.hasDefaultText()) written_[valueOf(index)].bytes = bytesOf(variable.value());
    if (variable.options() != variable.shape().options)
      written_[optionsOf(index)].bytes = bytesOf(variable.options());
  }
  for (const auto& [part, written] : written_) add(written.owner, written.life, written.bytes);
}

void WrittenShares::came(pid_t process) {
  Process& living = living_[process];
  if (living.endpoints++ == 0) living.life = ++lastLife_;
}

void WrittenShares::went(pid_t process) {
  const auto found = living_.find(process);
  if (found != living_.end() && --found->second.endpoints == 0) living_.erase(found);
}

std::size_t WrittenShares::ofProcess(pid_t process) const {
  const auto found = living_.find(process);
  return found == living_.end() ? 0 : found->second.bytes;
}

WrittenShares::Plan WrittenShares::planOf(const Variable& variable, const StoreChange& change,
                                          Owner owner) const {
  const std::uint32_t index = model_.indexOf(variable);
  const VariableShape& shape = variable.shape();
  const auto plan = [&](std::uint64_t part, std::size_t bytes) {
    const auto living = living_.find(owner.pid);
    return Plan{true, part, owner, bytes, 0, living == living_.end() ? 0 : living->second.life};
  };
  if (const auto* set = std::get_if<StoreChange::SetValue>(&change.what))
    return plan(valueOf(index), set->value == shape.defaultValue ? 0 : bytesOf(set->value));
  if (std::holds_alternative<StoreChange::ResetValue>(change.what)) return plan(valueOf(index), 0);
  const auto* options = std::get_if<StoreChange::SetOptions>(&change.what);
  if (options != nullptr && options->options) {
    return plan(optionsOf(index),
                *options->options == shape.options ? 0 : bytesOf(*options->options));
  }
  if (std::holds_alternative<StoreChange::ResetAttributes>(change.what))
    return plan(optionsOf(index), 0);
  return {};
}

std::size_t WrittenShares::bytesAt(std::uint64_t part) const {
  const auto found = written_.find(part);
  return found == written_.end() ? 0 : found->second.bytes;
}

// By how much the owner's sum grows.
std::size_t WrittenShares::growth(const Plan& plan) const {
  const auto found = written_.find(plan.part);
  const bool isOwn = found != written_.end() && found->second.owner.uid == plan.owner.uid;
  return plan.bytes - (isOwn ? std::min(found->second.bytes, plan.bytes) : 0);
}

Base::Status<> WrittenShares::room(const Plan& plan) const {
  if (!plan.isAny || plan.bytes <= bytesAt(plan.part)) return {};
  constexpr const char* kAdvice = ": reset or shorten others first";
  const std::size_t more = growth(plan);
  const Base::Status<> ofUser = shares_.room(userOf(plan.owner), more);
  if (!ofUser.ok()) return Base::failed(ofUser.text + kAdvice);
  if (ofProcess(plan.owner.pid) + more <= perProcess_) return {};
  return Base::failed("no more than " + std::to_string(perProcess_) + " " + shares_.name() +
                      " for one process, and process " + std::to_string(plan.owner.pid) +
                      " has its share" + kAdvice);
}

void WrittenShares::add(Owner owner, std::uint64_t life, std::size_t bytes) {
  shares_.add(userOf(owner), bytes);
  const auto living = living_.find(owner.pid);
  if (living != living_.end() && living->second.life == life) living->second.bytes += bytes;
}

void WrittenShares::remove(Owner owner, std::uint64_t life, std::size_t bytes) {
  shares_.remove(userOf(owner), bytes);
  const auto living = living_.find(owner.pid);
  if (living != living_.end() && living->second.life == life) living->second.bytes -= bytes;
}

void WrittenShares::take(Plan& plan) {
  if (!plan.isAny) return;
  plan.taken = growth(plan);
  add(plan.owner, plan.life, plan.taken);
}

void WrittenShares::drop(const Plan& plan) { remove(plan.owner, plan.life, plan.taken); }

void WrittenShares::apply(const Plan& plan) {
  if (!plan.isAny) return;
  drop(plan);
  const auto [at, isNew] = written_.try_emplace(plan.part);
  Written& written = at->second;
  if (!isNew) remove(written.owner, written.life, written.bytes);
  written = {plan.owner, plan.bytes, plan.life};
  add(written.owner, written.life, written.bytes);
  if (plan.bytes == 0) written_.erase(at);
}

}  // namespace ConfigSrv
