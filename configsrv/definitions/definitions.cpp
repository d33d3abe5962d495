// The variables are kept sorted by key, so that finding one is a binary search and the order of
// the model is the order here.
//
// The digest is made of what a client can notice of the definitions. Descriptions are left out:
// with another text a device behaves as before.
#include "configsrv/definitions/definitions.h"

#include <algorithm>
#include <array>
#include <utility>

#include "configsrv/definitions/pattern.h"

namespace ConfigSrv {
namespace {

bool before(const VariableDefinition& a, const VariableDefinition& b) {
  return std::less<ConfigVar>()(a.key, b.key);
}

// FNV-1a over bytes whose order is fixed here: numbers as eight bytes from low to high, strings and
// lists behind their length, so that no two contents run together to the same bytes.
class Hash {
 public:
  void add(std::uint64_t number) {
    for (int shift = 0; shift < 64; shift += 8)
      addByte(static_cast<unsigned char>(number >> shift));
  }
  void add(std::string_view text) {
    add(std::uint64_t{text.size()});
    for (const char c : text) addByte(static_cast<unsigned char>(c));
  }
  void addSigned(std::int64_t number) { add(static_cast<std::uint64_t>(number)); }
  template <typename Strings>
  void addAll(const Strings& strings) {
    add(std::uint64_t{strings.size()});
    for (const std::string& string : strings) add(std::string_view(string));
  }
  template <typename Number>
  void addOptional(const std::optional<Number>& number) {
    add(std::uint64_t{number.has_value()});
    addSigned(static_cast<std::int64_t>(number.value_or(0)));
  }
  std::uint64_t value() const { return value_; }

 private:
  void addByte(unsigned char byte) { value_ = (value_ ^ byte) * 0x100000001b3U; }

  std::uint64_t value_ = 0xcbf29ce484222325U;
};

void addKey(Hash& hash, const ConfigVar& key) {
  hash.addSigned(key.nameSpace());
  hash.add(std::string_view(key.group()));
  hash.addSigned(key.groupInstance());
  hash.add(std::string_view(key.name()));
  hash.addSigned(key.nameInstance());
}

void addShape(Hash& hash, const VariableShape& shape) {
  hash.add(static_cast<std::uint64_t>(shape.type));
  hash.addAll(shape.defaultValue);
  hash.addAll(shape.options);
  hash.add(std::uint64_t{shape.defaultIndex});
  hash.addOptional(shape.min);
  hash.addOptional(shape.max);
  hash.addOptional(shape.maxLength);
  hash.addOptional(shape.maxElements);
  hash.add(std::uint64_t{shape.pattern != nullptr});
  hash.add(std::string_view(shape.pattern ? shape.pattern->text() : std::string()));
  hash.addSigned(shape.readRole);
  hash.addSigned(shape.writeRole);
  hash.add(std::uint64_t{shape.readOnly});
  hash.add(std::uint64_t{shape.secret});
}

}  // namespace

std::string_view valueTypeName(ValueType type) {
  constexpr std::array<std::string_view, 5> kNames = {"string", "int", "bool", "list",
                                                      "enumeration"};
  return kNames[static_cast<std::size_t>(type)];
}

Definitions::Definitions(std::vector<VariableDefinition> variables)
    : variables_(std::move(variables)) {
  std::sort(variables_.begin(), variables_.end(), before);
}

const VariableDefinition* Definitions::find(const ConfigVar& key) const {
  const std::less<ConfigVar> less;
  const auto at = std::lower_bound(
      variables_.begin(), variables_.end(), key,
      [&less](const VariableDefinition& a, const ConfigVar& b) { return less(a.key, b); });
  return at == variables_.end() || less(key, at->key) ? nullptr : &*at;
}

std::uint64_t Definitions::digest() const {
  Hash hash;
  for (const VariableDefinition& definition : variables_) {
    addKey(hash, definition.key);
    addShape(hash, *definition.shape);
  }
  return hash.value();
}

}  // namespace ConfigSrv
