// StoreLife: some of a store's life on a faulty disk, step by step, and a ledger of what it was told
// and what it acknowledged, against which any later state is judged.
//
//   StoreLife life(disk);
//   while (life.takeStep()) {}           // false: a step failed, or there are no more
//   life.judge(Store::open(disk.options()))  // "" or what is wrong
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/configsrv/store/faulty_disk.h"
#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {

// What a store holds after some commit.
struct StoreState {
  std::uint64_t revision = 0;
  std::map<ConfigVar, StoredVariable> variables;

  void apply(const std::vector<StoreTransaction>& transactions);
  bool matches(const OpenedStore& opened) const;
};

class Ledger {
 public:
  Ledger() { states_.emplace_back(); }

  // Something is handed to the store. What failed before can no longer come back.
  void tell(const std::vector<StoreTransaction>& transactions);
  void acknowledge() { acknowledged_ = states_.size() - 1; }
  void snapshotBegins() { snapshotBegun_ = acknowledged_; }
  void snapshotEnds() { snapshot_ = snapshotBegun_; }

  // "" when the store holds what was acknowledged, or what was told last too, and said nothing.
  std::string judge(const OpenedStore& opened) const;
  // What was read counts as acknowledged: nobody may see it gone.
  void believe(const OpenedStore& opened);
  // The same for a store whose file was damaged by somebody: what a snapshot may hold.
  std::string judgeRestored(const OpenedStore& opened) const;
  const StoreState& acknowledged() const { return states_[acknowledged_]; }

 private:
  // After each commit; the last may be one whose end nobody knows.
  std::vector<StoreState> states_;
  std::size_t acknowledged_ = 0;
  std::size_t snapshot_ = 0;
  std::size_t snapshotBegun_ = 0;
};

class StoreLife {
 public:
  explicit StoreLife(FaultyDisk& disk);

  // False when it failed, which status() explains, and when there are no more.
  bool takeStep();
  bool isOver() const { return next_ == steps_.size(); }
  // The step that failed is taken again with the next takeStep().
  const StoreStatus& status() const { return status_; }
  const std::string& wrong() const { return wrong_; }
  Ledger& ledger() { return ledger_; }
  OpenedStore& opened() { return opened_; }
  // As when the process dies.
  void end() { opened_ = OpenedStore(); }

 private:
  using Step = std::function<StoreStatus()>;

  void open(int logPages = 12);
  void commit(std::vector<StoreTransaction> transactions);
  void snapshot();
  void close();

  FaultyDisk& disk_;
  std::vector<Step> steps_;
  std::size_t next_ = 0;
  OpenedStore opened_;
  StoreStatus status_;
  std::string wrong_;
  Ledger ledger_;
};

}  // namespace ConfigSrv
