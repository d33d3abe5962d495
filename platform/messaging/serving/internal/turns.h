// Turns:  who is served next, of all who are ready.
//
// Users take turns, however many connections each has: a user with 700 gets as much of the server as
// one with a single one. Within a user, what waits is served in the order in which it became ready:
// connections with something to say, and tasks that were put off. What is not done with at the end
// of a turn is added again, and stands behind everything else of its user.
//
// A round is one turn for each user that waits. Who becomes ready meanwhile has to be looked for
// between rounds; it then waits for one turn of each user at most.
//
// Threads:  one at a time, whichever runs the server's loop.
//
//   for (std::size_t left = turns.users(); left > 0; --left) {
//     turns.begin();
//     while (!slice.isOver() && turns.next(item)) serve(item);  // may add()
//     turns.end();
//   }
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <unordered_map>
#include <vector>

namespace PbUtility {

class Turns {
 public:
  // A connection by its key, or a task.
  struct Item {
    std::uint64_t connection = 0;
    std::function<void()> task;
  };

  // A user of whom nothing waits is forgotten only while there are more users than these: otherwise each
  // event would allocate and free a line.
  static constexpr std::size_t kIdleUsers = 16;

  void add(uid_t user, Item item);

  bool isEmpty() const { return order_.empty(); }
  // How many users wait.
  std::size_t users() const { return order_.size(); }

  // Begins the turn of the user who has waited longest; somebody has to wait.
  void begin();
  // What is next in this turn; false when nothing of the user waits.
  bool next(Item& item);
  // Ends it: if something of the user waits still, it stands behind all other users now.
  void end();

 private:
  // What waits of one user: items_ from first on.
  struct Line {
    std::vector<Item> items;
    std::size_t first = 0;
    // It is in order_, or has its turn.
    bool isKnown = false;
  };

  std::unordered_map<uid_t, Line> lines_;
  std::deque<uid_t> order_;
  uid_t current_ = 0;
};

}  // namespace PbUtility
