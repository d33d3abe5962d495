#include "tests/configsrv/store/store_life.h"

namespace ConfigSrv {
namespace {

// Long enough for pages of its own, and different throughout, so that a mixture shows.
std::string longText(int seed, std::size_t size) {
  std::string text;
  while (text.size() < size) text += std::to_string(seed) + "." + std::to_string(text.size()) + " ";
  return text;
}

StoreChange with(
    const std::string& name,
    std::variant<StoreChange::SetValue, StoreChange::ResetValue, StoreChange::SetOptions,
                 StoreChange::SetAccess, StoreChange::ResetAttributes>
        what) {
  return {keyOf(name), std::move(what)};
}

}  // namespace

void StoreState::apply(const std::vector<StoreTransaction>& transactions) {
  for (const StoreTransaction& transaction : transactions) {
    ++revision;
    for (const StoreChange& change : transaction) {
      auto& variable = variables.try_emplace(change.key, change.key).first->second;
      applyChange(change, revision, &variable);
    }
  }
}

bool StoreState::matches(const OpenedStore& opened) const {
  if (opened.store->revision() != revision || opened.variables.size() != variables.size()) {
    return false;
  }
  auto expected = variables.begin();
  for (const StoredVariable& variable : opened.variables) {
    if (variable != (expected++)->second) return false;
  }
  return true;
}

void Ledger::tell(const std::vector<StoreTransaction>& transactions) {
  states_.resize(acknowledged_ + 1);
  states_.push_back(states_.back());
  states_.back().apply(transactions);
}

std::string Ledger::judge(const OpenedStore& opened) const {
  if (!opened.status.ok()) return "it does not open: " + opened.status.text;
  if (!opened.notice.empty()) return "something was set aside: " + opened.notice;
  for (std::size_t i = acknowledged_; i < states_.size(); ++i) {
    if (states_[i].matches(opened)) return {};
  }
  return "acknowledged is revision " + std::to_string(states_[acknowledged_].revision) +
         ", found are revision " + std::to_string(opened.store->revision()) + " and " +
         std::to_string(opened.variables.size()) + " variables that are neither that nor the next";
}

void Ledger::believe(const OpenedStore& opened) {
  while (acknowledged_ + 1 < states_.size() && !states_[acknowledged_].matches(opened)) {
    ++acknowledged_;
  }
  states_.resize(acknowledged_ + 1);
}

std::string Ledger::judgeRestored(const OpenedStore& opened) const {
  if (!opened.status.ok()) return "it does not open: " + opened.status.text;
  if (opened.notice.empty()) return "nothing was said";
  for (const std::size_t i : {snapshot_, snapshotBegun_}) {
    if (states_[i].matches(opened)) return {};
  }
  return "found is revision " + std::to_string(opened.store->revision()) + ", which is no snapshot";
}

StoreLife::StoreLife(FaultyDisk& disk) : disk_(disk) {
  open();
  commit({{setting("a", "1"), setting("b", "1"), setting("c", "1")}});
  commit({{setting("a", "2"), setting("d", longText(1, 9000))}, {setting("b", "3")}});
  commit(
      {{with("c", StoreChange::ResetValue{}), with("e", StoreChange::SetOptions{{{"x", "y"}}, 1}),
        with("a", StoreChange::SetAccess{10, 20})}});
  snapshot();
  commit({{setting("a", "4"), setting("d", longText(2, 3000))}});
  commit({{setting("f", longText(3, 20000)), setting("b", "5")}});
  commit({{setting("c", "6")}, {setting("a", "6")}, {with("e", StoreChange::ResetAttributes{})}});
  close();
  open();
  commit({{setting("d", longText(4, 12000)), setting("a", "7")}});
  commit({{with("f", StoreChange::ResetValue{}), setting("b", "8")}});
  snapshot();
  for (int i = 0; i < 4; ++i) commit({{setting("a", longText(i, 5000)), setting("c", "9")}});
  close();
  open(100);
  commit({{setting("b", "10"), setting("g", "10")}});
  // More than is reserved, on pages that are full to their ends, and what follows it in the same log.
  StoreTransaction large;
  for (int i = 0; i < 40; ++i) large.push_back(setting("m" + std::to_string(i), longText(i, 950)));
  commit({large});
  commit({{setting("a", "11")}});
  commit({{setting("b", "12")}});
}

bool StoreLife::takeStep() {
  if (isOver()) return false;
  status_ = steps_[next_]();
  if (status_.ok()) ++next_;
  return status_.ok() && wrong_.empty();
}

void StoreLife::open(int logPages) {
  steps_.emplace_back([this, logPages] {
    StoreOptions options = disk_.options();
    options.logPages = logPages;
    opened_ = OpenedStore();
    opened_ = Store::open(options);
    if (opened_.status.ok()) wrong_ = ledger_.judge(opened_);
    if (opened_.status.ok()) ledger_.believe(opened_);
    return opened_.status;
  });
}

void StoreLife::commit(std::vector<StoreTransaction> transactions) {
  steps_.emplace_back([this, transactions = std::move(transactions)] {
    ledger_.tell(transactions);
    const CommitResult result = opened_.store->commit(transactions);
    if (result.status.ok()) ledger_.acknowledge();
    if (opened_.store->revision() != ledger_.acknowledged().revision) wrong_ = "a wrong revision";
    return result.status;
  });
}

void StoreLife::snapshot() {
  steps_.emplace_back([this] {
    ledger_.snapshotBegins();
    const StoreStatus status = opened_.store->snapshot();
    if (status.ok()) ledger_.snapshotEnds();
    return status;
  });
}

void StoreLife::close() {
  steps_.emplace_back([this] {
    opened_ = OpenedStore();
    return StoreStatus();
  });
}

}  // namespace ConfigSrv
