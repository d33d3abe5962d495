// A store's files as a failing disk leaves them: any bytes, a good store with some of its bytes
// changed or cut off, and rows that nothing guards but what they hold.
//
// Whatever is found, the service starts: with what is good, or with an empty store, and says so. From
// then on the store keeps what it is given.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "configsrv/model/model.h"
#include "configsrv/store/internal/database.h"
#include "configsrv/store/internal/row_codec.h"
#include "configsrv/store/internal/store_contents.h"
#include "configsrv/store/store.h"
#include "fuzz/definitions.h"
#include "fuzz/files.h"
#include "fuzz/input.h"

namespace {

using namespace ConfigSrv;
using Fuzz::Files;
using Fuzz::Input;
using Fuzz::require;

constexpr std::size_t kMaxPatches = 32;
constexpr std::size_t kMaxRows = 16;

struct Bytes {
  std::string main;
  std::string log;
};

StoreOptions optionsIn(const Files& files) {
  StoreOptions options;
  options.file = files.path("store.db");
  return options;
}

StoreChange change(const std::string& name, std::list<std::string> value) {
  return {ConfigVar("net", 0, name, 0), StoreChange::SetValue{std::move(value)}};
}

void require(const StoreStatus& status, const char* promise) {
  Fuzz::require(status.ok(), promise, status.text);
}

// A new store with these transactions in its log, or in its file alone.
Bytes makeStore(const Files& files) {
  files.clear();
  OpenedStore opened = Store::open(optionsIn(files));
  require(opened.status, "a new store is opened");
  require(opened.store->commit({{change("mtu", {"1400"})}, {change("name", {"a", "b"})}}).status,
          "a store keeps what it is given");
  Bytes bytes{files.read("store.db"), files.read("store.db-wal")};
  opened.store.reset();
  files.clear();
  return bytes;
}

// Each patch: where, how, with what.
void patch(Input& input, std::string& bytes) {
  const std::size_t at = input.byte() * std::size_t{256} + input.byte();
  const std::uint8_t how = input.byte();
  const std::uint8_t what = input.byte();
  if (bytes.empty()) return;
  const std::size_t place = at % bytes.size();
  if (how % 8 == 0) return bytes.resize(place);
  if (how % 8 == 1) return static_cast<void>(bytes.insert(place, how, static_cast<char>(what)));
  const std::size_t end = std::min(bytes.size(), place + how / 8);
  for (std::size_t i = place; i <= end && i < bytes.size(); ++i) {
    bytes[i] = how % 8 < 5 ? static_cast<char>(bytes[i] ^ what) : static_cast<char>(what);
  }
}

void writePatched(Input& input, const Files& files, Bytes bytes) {
  for (std::size_t i = 0; i < kMaxPatches && !input.isOver(); ++i) {
    patch(input, input.byte() % 3 == 0 ? bytes.log : bytes.main);
  }
  files.write("store.db", bytes.main);
  files.write("store.db-wal", bytes.log);
}

// Values and options that are no lists of strings, roles that are none, and keys of any bytes.
StoredVariable anyVariable(Input& input) {
  StoredVariable variable{ConfigVar(static_cast<std::int8_t>(input.byte()),
                                    std::string(input.piece()), input.byte() % 3,
                                    std::string(input.piece()), input.byte() % 3)};
  const std::uint8_t has = input.byte();
  if ((has & 1) != 0) variable.value = decodeStrings<std::list<std::string>>(input.piece());
  if ((has & 2) != 0) variable.options = decodeStrings<std::vector<std::string>>(input.piece());
  if ((has & 4) != 0) variable.defaultIndex = input.number();
  if ((has & 8) != 0) variable.readRole = static_cast<std::int8_t>(input.byte());
  if ((has & 16) != 0) variable.writeRole = static_cast<std::int8_t>(input.byte());
  variable.valueChangedAt = input.number();
  variable.optionsChangedAt = input.number();
  return variable;
}

void writeRows(Input& input, const Files& files, const Bytes& bytes) {
  files.write("store.db", bytes.main);
  files.write("store.db-wal", bytes.log);
  Database database(files.path("store.db"), "", Database::Access::kReadWrite);
  VariableTable table(database);
  require(table.isReady(), "a good store can be written");
  for (std::size_t i = 0; i < kMaxRows && !input.isOver(); ++i) {
    std::uint64_t digest = 0;
    require(table.write(anyVariable(input), &digest), "any variable can be stored");
  }
}

void readStrings(std::string_view bytes) {
  const auto strings = decodeStrings<std::vector<std::string>>(bytes);
  if (strings)
    require(encodeStrings(*strings) == bytes, "a list that was read is written as it was");
}

bool isOneLine(const std::string& text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return c == '\n' || c == '\r' || c == '\0'; });
}

void restore(std::vector<StoredVariable> stored, std::uint64_t revision) {
  const std::size_t records = stored.size();
  Model model(Fuzz::definitions());
  const std::vector<std::string> lines = model.restore(std::move(stored), revision);
  require(lines.size() <= 5 * records, "each part of a record is told of once");
  for (const Variable* variable : model.covered("")) {
    const Base::Status<> fits =
        checkValue(variable->definition(), variable->options(), variable->value());
    require(fits.ok(), "a variable holds what it may hold", fits.text);
    const std::size_t count = std::max<std::size_t>(1, variable->options().size());
    require(variable->defaultIndex() < count, "a default index is one of an option");
  }
}

// From here on it is a store like any other.
void useAndReopen(const Files& files, OpenedStore opened) {
  const std::uint64_t revision = opened.store->revision();
  restore(opened.variables, revision);
  const CommitResult kept = opened.store->commit({{change("mtu", {"1300"})}});
  require(kept.status, "a store that was opened keeps what it is given");
  require(kept.revisions == std::vector<std::uint64_t>{revision + 1}, "revisions grow by one");
  opened.store.reset();
  const OpenedStore again = Store::open(optionsIn(files));
  require(again.status, "a store that was used is opened again");
  require(again.notice.empty(), "a store that was used is whole", again.notice);
  require(again.store->revision() == revision + 1, "the newest commit is there");
}

void openStore(const Files& files) {
  OpenedStore opened = Store::open(optionsIn(files));
  require(isOneLine(opened.notice) && isOneLine(opened.status.text), "a notice is one line");
  // Such a file is left as it is.
  if (opened.status.code == StoreCode::kNewerFormat) return;
  require(opened.status, "damage does not keep a store from being opened");
  useAndReopen(files, std::move(opened));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Files files;
  static const Bytes good = makeStore(files);
  Input input(data, size);
  files.clear();
  const std::uint8_t what = input.byte();
  if (what % 8 == 4) files.write("store.db.snapshot", good.main);
  if (what % 8 == 5) files.write("store.db.snapshot", input.piece());
  if (what % 4 == 0) {
    files.write("store.db", input.piece());
    files.write("store.db-wal", input.rest());
  } else if (what % 4 == 1) {
    writePatched(input, files, good);
  } else if (what % 4 == 2) {
    writeRows(input, files, good);
  } else {
    readStrings(input.rest());
    return 0;
  }
  openStore(files);
  return 0;
}
