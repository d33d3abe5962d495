// Buffers: how many bytes each connection makes the server keep, unfinished frames and what waits for
// its reader, and which connection has to go when that is too much.
//
// Users and processes have shares (shares.h). Who passes its own share loses the connection of its own
// that holds most: nobody is closed for what another user keeps. When all ordinary users together
// hold too much, which takes several of them, the user who holds most loses its largest; when
// everybody together does, the process.
//
// Finding that connection looks at all that hold something, and happens only when one is closed for
// it: an attacker pays with a connection, filled to its share, for each time.
//
// Threads:  one at a time, whichever runs the server's loop.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/messaging/serving/shares.h"

namespace PbUtility {

class Buffers {
 public:
  // A connection's part. Its owner and number do not change while it holds anything, nor does its place.
  struct Account {
    Owner owner;
    std::uint64_t connection = 0;
    std::size_t bytes = 0;
  };

  // Who is past its share: the connection that has to be closed, and the limit and whose it is.
  struct Excess {
    std::uint64_t connection = 0;
    std::string limit;
  };

  Buffers(ShareLimits limits, uid_t own);

  // From now on the account holds so many bytes. One that holds any has to be set to 0 before it goes.
  void set(Account& account, std::size_t bytes) {
    if (bytes != account.bytes) change(account, bytes);
  }

  // Whether the owner's user and process have room for so many bytes more of this account. What is long
  // and does not fit is not worth making: the connection can be closed at once.
  bool fits(const Account& account, std::size_t more) const;

  // Whether somebody may have to be closed.
  bool isPast() const { return !grown_.empty(); }
  // Whom to close next; nothing when all are within their shares. It counts until it is set to 0.
  std::optional<Excess> excess();

  const Shares& shares() const { return shares_; }

 private:
  void change(Account& account, std::size_t bytes);
  const Account* greediest(Owner owner, Shares::Limit limit) const;

  Shares shares_;
  // Those that hold something.
  std::unordered_set<const Account*> accounts_;
  // Who was past a limit after it had got more.
  std::vector<Owner> grown_;
};

}  // namespace PbUtility
