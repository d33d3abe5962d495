#include "configsrv/model/internal/key_index.h"

#include <functional>
#include <string_view>

#include "configsrv/model/model.h"

namespace ConfigSrv {
namespace {

std::size_t mixed(std::size_t hash, std::size_t more) {
  return hash ^ (more + std::size_t{0x9E3779B9} + (hash << 6) + (hash >> 2));
}

std::size_t hashOf(std::int32_t number) { return static_cast<std::size_t>(number); }

std::size_t hashOf(const ConfigVar& key) {
  const std::hash<std::string_view> ofText;
  std::size_t hash = ofText(key.group());
  hash = mixed(hash, ofText(key.name()));
  hash = mixed(hash, hashOf(key.nameSpace()));
  hash = mixed(hash, hashOf(key.groupInstance()));
  return mixed(hash, hashOf(key.nameInstance()));
}

bool same(const ConfigVar& a, const ConfigVar& b) {
  return a.nameInstance() == b.nameInstance() && a.groupInstance() == b.groupInstance() &&
         a.nameSpace() == b.nameSpace() && a.name() == b.name() && a.group() == b.group();
}

std::size_t tableSize(std::size_t variables) {
  std::size_t size = 2;
  while (size < 2 * variables) size *= 2;
  return size;
}

}  // namespace

KeyIndex::KeyIndex(const std::vector<Variable>& variables)
    : variables_(variables), slots_(tableSize(variables.size()), kNotFound) {
  for (std::uint32_t i = 0; i < variables.size(); ++i) {
    std::size_t slot = slotOf(variables[i].key());
    while (slots_[slot] != kNotFound) slot = (slot + 1) & (slots_.size() - 1);
    slots_[slot] = i;
  }
}

std::uint32_t KeyIndex::find(const ConfigVar& key) const {
  std::size_t slot = slotOf(key);
  // At least half of the slots are free, so a search ends.
  while (slots_[slot] != kNotFound && !same(variables_[slots_[slot]].key(), key))
    slot = (slot + 1) & (slots_.size() - 1);
  return slots_[slot];
}

std::size_t KeyIndex::slotOf(const ConfigVar& key) const {
  return hashOf(key) & (slots_.size() - 1);
}

}  // namespace ConfigSrv
