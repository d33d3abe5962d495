#include "platform/messaging/serving/internal/turns.h"

#include <utility>

namespace PbUtility {

void Turns::add(uid_t user, Item item) {
  Line& line = lines_[user];
  line.items.push_back(std::move(item));
  if (!std::exchange(line.isKnown, true)) order_.push_back(user);
}

void Turns::begin() {
  current_ = order_.front();
  order_.pop_front();
}

// What was taken is removed once all is, or once it is most of what the line holds: a line that is
// added to while it is served would grow without end otherwise.
bool Turns::next(Item& item) {
  Line& line = lines_[current_];
  if (line.first == line.items.size()) return false;
  item = std::move(line.items[line.first++]);
  if (2 * line.first < line.items.size()) return true;
  line.items.erase(line.items.begin(),
                   line.items.begin() + static_cast<std::ptrdiff_t>(line.first));
  line.first = 0;
  return true;
}

void Turns::end() {
  const auto found = lines_.find(current_);
  Line& line = found->second;
  if (line.first < line.items.size()) return order_.push_back(current_);
  line.isKnown = false;
  if (lines_.size() > kIdleUsers) lines_.erase(found);
}

}  // namespace PbUtility
