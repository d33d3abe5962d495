// Witness: what the store held last, and under which epoch, in a file that outlives the process.
//
// A store that is put back by hand, or that lost the end of its log, has the same id as before and
// older revisions, or other contents under the same ones. The witness tells: it knows the revision
// and a digest of the contents that the last service told its clients of. It stands beside the
// socket, in memory, so it lives exactly as long as clients can remember anything: until the device
// starts anew.
//
// Shape:   one record of fixed size, written whole by one system call: the epoch, the digest of the
//          definitions, the store's id, what is committed, and what is about to be. It is written
//          before a commit and once more behind it, before anybody hears of it: so whenever the
//          process ends the store holds one of the two, and once somebody was told, that one.
// Epoch:   grows: a later one is a greater number, never 0. It stays as long as the store continues
//          the record and the definitions are the same.
// Faults:  a file that cannot be written stops nobody: it is said once, and the next start finds a
//          store that does not continue it, or no record, and begins a new epoch. One that cannot
//          be read, is half written, a symbolic link or another user's is not used and said.
// Threads: one at a time; it may be begun on one thread and used on another.
//
//   Witness witness("/run/appconfig/ConfigSrvc.witness", warn);
//   witness.read();
//   options.witness = &witness;
//   OpenedStore opened = Store::open(options);            // With a new id when it does not continue.
//   epoch = witness.epochFor(opened.store->storeId(), definitions.digest());
//   witness.begin({epoch, definitions.digest(), opened.store->storeId()}, opened.store->mark());
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/status.h"
#include "base/unique_fd.h"

namespace ConfigSrv {

// What only one state of a store has: its newest revision, and a digest of all of its rows, the
// revisions of each included. Two states of one id with one mark hold the same.
struct StoreMark {
  std::uint64_t revision = 0;
  std::uint64_t digest = 0;
};

inline bool operator==(const StoreMark& a, const StoreMark& b) {
  return a.revision == b.revision && a.digest == b.digest;
}
inline bool operator!=(const StoreMark& a, const StoreMark& b) { return !(a == b); }

class Witness {
 public:
  // What an epoch stands for.
  struct Epoch {
    std::uint64_t number = 0;
    std::uint64_t definitions = 0;  // Definitions::digest().
    std::uint64_t storeId = 0;
  };
  using Warn = std::function<void(const std::string& line)>;

  // An empty path: nothing is witnessed, and each start begins a new epoch.
  Witness(std::string file, Warn warn);
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;

  // Reads what the last service left. The directory need not be there yet.
  void read();

  // Why a store cannot be what clients were told of last, as the end of a sentence that begins with
  // the store; empty when nothing speaks against it: it continues, or is another, or there is no
  // record.
  std::string objectionTo(std::uint64_t storeId, const StoreMark& found) const;

  // The epoch of a store that objectionTo() had nothing against.
  std::uint64_t epochFor(std::uint64_t storeId, std::uint64_t definitions) const;

  // Begins the record anew. Called once nobody else can have the file: with the socket.
  void begin(const Epoch& epoch, const StoreMark& committed);

  // Before a commit: from here on the store holds one of the two.
  void expect(const StoreMark& committed, const StoreMark& pending);
  // After a commit that succeeded: from here on it holds this.
  void settle(const StoreMark& committed) { expect(committed, committed); }

 private:
  enum class Found { kNothing, kRecord, kUnusable };
  struct Record {
    std::uint64_t kind = 0;
    Epoch epoch;
    StoreMark committed;
    StoreMark pending;
    std::uint64_t check = 0;
  };

  static std::uint64_t checkOf(const Record& record);
  Base::Status<> readRecord();
  Base::Status<> makeFile();
  bool writeRecord();
  void fail(const std::string& problem);

  const std::string file_;
  const Warn warn_;
  Found found_ = Found::kNothing;
  std::string whyUnusable_;
  Record last_;  // As found by read().
  Record record_;
  Base::UniqueFd fd_;
};

}  // namespace ConfigSrv
