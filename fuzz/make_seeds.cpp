// Writes inputs that say something to each fuzz program: a fuzzer finds the rest from there, but not
// these from nothing. scripts/fuzz starts with them.
//
//   build/fuzz/bin/fuzz_make_seeds DIRECTORY     DIRECTORY/<target>/<name>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "appconfig/wire/protobuf_message_helper.h"
#include "fuzz/clients.h"
#include "fuzz/input.h"
#include "fuzz/messages.h"
#include "platform/schema/message_ids.h"

namespace {

namespace fs = std::filesystem;
using google::protobuf::MessageLite;
using Helper = AppConfig::ProtobufMessageHelper;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;

// Input's numbers and pieces, written.
std::string number(std::size_t value) {
  return {static_cast<char>(value & 0xff), static_cast<char>(value >> 8 & 0xff)};
}
std::string piece(const std::string& bytes) { return number(bytes.size()) + bytes; }
std::string byte(unsigned value) { return std::string(1, static_cast<char>(value)); }

class Seeds {
 public:
  explicit Seeds(fs::path directory) : directory_(std::move(directory)) {}

  void add(const std::string& target, const std::string& bytes) {
    fs::create_directories(directory_ / target);
    const fs::path path = directory_ / target / ("seed-" + std::to_string(count_++));
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
  }
  void addAll(const std::string& target, std::initializer_list<std::string> inputs) {
    for (const std::string& input : inputs) add(target, input);
  }

 private:
  const fs::path directory_;
  std::size_t count_ = 100;
};

const ConfigVar kMtu("net", 0, "mtu", 0);
const ConfigVar kMode("net", 0, "mode", 0);
const ConfigVar kServers("net", 0, "servers", 0);
const ConfigVar kSpeed(3, "engine", 0, "speed", 0);
const ConfigVar kSecret("net", 0, "secret", 0);
const CommonIF::eSecurityRole kUser = CommonIF::SECURITY_ROLE_USER;
const CommonIF::eSecurityRole kFactory = CommonIF::SECURITY_ROLE_FACTORY;

// --- The protocol's messages, filled ---

std::vector<std::pair<std::uint32_t, std::string>> requests() {
  std::vector<std::pair<std::uint32_t, std::string>> all;
  const auto add = [&all](const MessageLite& message) {
    all.emplace_back(PlatformSchema::messageIdOf(message), message.SerializeAsString());
  };
  for (const ConfigVar& var : {kMtu, kMode, kSpeed, kSecret}) {
    add(Helper::getReadRequest("ui", kUser, var));
    add(Helper::getGetOptionsRequest("ui", kUser, var));
    add(Helper::getReadAttributesRequest("ui", kFactory, var));
    add(Helper::getGetValueOptionsAccessRequest("ui", kFactory, var));
    add(Helper::getGetAccessLevelsReq("ui", kUser, var));
    add(Helper::getResetValueRequest("ui", kUser, var));
    add(Helper::getGetDefaultOptionsRequest("ui", kUser, var.dottedName()));
  }
  add(Helper::getWriteRequest("ui", kUser, kMtu, "1400"));
  add(Helper::getWriteRequest("ui", kUser, kServers, std::list<std::string>{"c", "d"}));
  add(Helper::getWriteRequest("ui", kFactory, kMode, "manual"));
  add(Helper::getValidateRequest("ui", kUser, kMtu, "70000"));
  add(Helper::getValidateRequest("ui", kUser, ConfigVar("net", 0, "name", 0), "gate7"));
  add(Helper::getBatchReadRequest("ui", kUser, {kMtu, kMode, kSecret}));
  add(Helper::getBatchGetValueOptionsAccessReq("ui", kFactory, {kMtu, kMode}));
  add(Helper::getResetNodeValueRequest("ui", kFactory, "net"));
  add(Helper::getResetAttributeRequest("ui", kFactory, "net"));
  const unsigned index = 1;
  add(Helper::getSetOptionsRequest("ui", kFactory, kMode, {"auto", "manual", "off"}, &index));
  add(Helper::getSetOptionsRequest("ui", kFactory, kMtu, {"1400", "1500"}, &index));
  add(Helper::getSetAccessLevelsReq("ui", kFactory, {kMtu, kMode}, &kFactory, &kFactory));
  for (const int type : {1, 2, 3, 4, 5, 6, 7}) {
    const auto callback = static_cast<ConfigIF::CallbackType>(type);
    add(Helper::getRegClientCallbackRequest("ui", kFactory, "net.mtu", callback, "id"));
    add(Helper::getRegClientCallbackRequest("ui", kUser, "", callback, "id"));
    add(Helper::getUnregClientCallbackRequest("ui", kUser, "net.mtu", callback, "id"));
  }
  add(Helper::getUnregAllClientCallbacksRequest("ui"));
  for (const std::uint32_t id :
       {0x1A0270U, 0x1A0400U, 0x1A0410U, 0x1A0420U, 0x1A0430U, 0x1A0440U, 0x1A0450U}) {
    // client name, role, and a prefix or a path of two nodes
    std::string text = "\x0a\x02ui\x10\x32";
    if (id == 0x1A0270)
      text += std::string("\x1a\x12\x0a\x07\x0a\x03net\x10\0\x0a\x07\x0a\x03mtu\x10\0", 20);
    if (id == 0x1A0400 || id == 0x1A0430) text += "\x1a\x03net";
    all.emplace_back(id, text);
  }
  return all;
}

ConfigIF::ReturnMessage result() {
  ConfigIF::ReturnMessage message;
  message.set_error(CommonIF::ERROR_VETOED);
  message.add_messages("no");
  message.set_server_context("change 1");
  return message;
}

template <typename Notice>
Notice noticeOf() {
  Notice notice;
  notice.set_callback_identity("LINK");
  return notice;
}

std::vector<std::pair<std::uint32_t, std::string>> deliveries() {
  std::vector<std::pair<std::uint32_t, std::string>> all;
  const auto add = [&all](const MessageLite& message) {
    all.emplace_back(PlatformSchema::messageIdOf(message), message.SerializeAsString());
  };
  auto changed = noticeOf<ConfigIF::ConfigChangedNtfy>();
  Helper::addVarName(changed.mutable_value()->mutable_inst(), kMtu);
  changed.mutable_value()->add_values("1400");
  changed.set_is_default(true);
  add(changed);
  auto attribute = noticeOf<ConfigIF::AttributeChangedNtfy>();
  Helper::addVarName(attribute.mutable_inst(), kMtu);
  add(attribute);
  auto options = noticeOf<ConfigIF::OptionsChangedNtfy>();
  Helper::addVarName(options.mutable_inst(), kMtu);
  options.add_options("1400");
  options.set_default_index(1);
  add(options);
  auto submit = noticeOf<ConfigIF::SubmitNtfy>();
  Helper::addVarName(submit.mutable_inst(), kMtu);
  submit.set_type(ConfigIF::SUBMIT_DISCARD);
  add(submit);
  auto access = noticeOf<ConfigIF::AccessLevelChangedNtfy>();
  Helper::addVarName(access.mutable_inst(), kMtu);
  access.set_read_role(kFactory);
  add(access);
  ConfigIF::DynamicValidateReq validate;
  validate.set_server_context("change 1");
  Helper::addVarName(validate.mutable_value()->mutable_inst(), kMtu);
  validate.mutable_value()->add_values("1400");
  add(validate);
  ConfigIF::OnChangeReq change;
  *change.mutable_value() = validate.value();
  change.set_role(kFactory);
  add(change);
  return all;
}

// --- service: the steps of service_fuzz.cpp ---

constexpr unsigned kPeers = 3;

std::string service(std::uint32_t id, const std::string& payload, unsigned peer = 0,
                    unsigned how = 0) {
  const auto& ids = Fuzz::requestIds();
  const auto at = std::find(ids.begin(), ids.end(), id) - ids.begin();
  return byte(peer) + byte(static_cast<unsigned>(at)) + byte(how) + piece(payload);
}
std::string step(unsigned action, unsigned peer = 0) { return byte(action * kPeers + peer); }
const unsigned kAnswer = 6, kEnd = 7, kCommit = 8, kDeadline = 9, kRead = 10;

std::string asMessage(const MessageLite& message, unsigned peer = 0, unsigned how = 0) {
  return service(PlatformSchema::messageIdOf(message), message.SerializeAsString(), peer, how);
}

void addService(Seeds& seeds) {
  const auto registers = [](int type, const char* name) {
    return asMessage(Helper::getRegClientCallbackRequest(
                         "app", kFactory, name, static_cast<ConfigIF::CallbackType>(type), "id"),
                     1);
  };
  ConfigIF::DynamicValidateRsp vetoed;
  *vetoed.mutable_result() = result();
  const std::string veto = byte(0) + piece(vetoed.SerializeAsString());
  const std::string agree = byte(0) + piece("");
  const std::string write = asMessage(Helper::getWriteRequest("ui", kUser, kMtu, "1400"));
  const std::string watch = service(0x1A0430, "\x0a\x02ui\x10\x32", 1);
  for (const auto& [id, payload] : requests()) {
    seeds.add("service", service(id, payload));
    seeds.add("service",
              registers(3, "net") + watch + service(id, payload) + step(kCommit) + step(kRead, 1));
    seeds.add("service", write + step(kCommit) + service(id, payload, 0, 80) + step(kCommit));
  }
  const std::string asked = registers(2, "net") + registers(1, "net") + watch + write;
  seeds.addAll("service",
               {asked + step(kRead, 1) + step(kAnswer, 1) + agree + step(kEnd, 1) + step(kRead, 1) +
                    step(kAnswer, 1) + agree + step(kEnd, 1) + step(kCommit),
                asked + step(kRead, 1) + step(kAnswer, 1) + veto + step(kEnd, 1),
                asked + step(kDeadline) + write + write + step(kCommit) + step(kCommit),
                asked + byte(11 * kPeers + 1) + step(kRead),
                registers(3, "") + write + write + byte(8 * kPeers + 216) + step(kCommit)});
}

// --- server and stream ---

std::string frame(FrameKind kind, std::uint32_t id, std::uint32_t sequence,
                  const std::string& payload) {
  FrameHeader header;
  header.kind = kind;
  header.messageId = id;
  header.sequence = sequence;
  return Fuzz::frameOf(header, payload);
}

void addServer(Seeds& seeds) {
  const auto act = [](unsigned action, unsigned client) { return byte(action * 4 + client); };
  const auto opened = [&](unsigned client, unsigned use, unsigned token) {
    return act(0, client) + act(1, client) + byte(use + 4 * token);
  };
  const auto sends = [&](unsigned client, unsigned kind, unsigned id) {
    return act(3, client) + byte(kind) + byte(0) + number(id) + byte(7) + piece("payload");
  };
  const std::string asks = act(7, 0) + byte(3) + byte(0);
  const std::string notifies = act(7, 0) + byte(4) + byte(1);
  const std::string hello = Fuzz::helloOf(PbUtility::ConnectionUse::Requests, 1, "ui");
  seeds.addAll(
      "server",
      {opened(0, 1, 0) + sends(0, 3, 0x110) + act(7, 0) + byte(2) + byte(0) + act(5, 0) + act(6, 0),
       opened(0, 2, 0) + asks + act(5, 0) + sends(0, 8, 0x101) + sends(0, 9, 0) + act(6, 0),
       opened(0, 2, 0) + opened(1, 1, 0) + notifies + asks + notifies + opened(2, 2, 0) + asks,
       opened(0, 2, 0) + opened(1, 2, 1) + asks + act(6, 0) + asks + sends(1, 5, 0x230),
       act(0, 0) + act(2, 0) + piece(hello.substr(0, 10)) + act(2, 0) + piece(hello.substr(10)) +
           act(2, 0) + piece(frame(FrameKind::Request, 0x1A0110, 1, "abc").substr(0, 25)),
       sends(3, 3, 1) + act(0, 3) + sends(3, 3, 1) + act(0, 2) + act(6, 2)});
  const std::string response =
      frame(FrameKind::Response, 0x1A0111, 1, std::string("\x0a\x00", 2));  // An empty result.
  const auto pieces = [](const std::string& bytes, std::size_t size) {
    std::string cut;
    for (std::size_t at = 0; at < bytes.size(); at += size) {
      const std::string part = bytes.substr(at, size);
      cut += byte(static_cast<unsigned>(part.size())) + part;
    }
    return cut;
  };
  for (const std::size_t size : {std::size_t{1}, std::size_t{24}, std::size_t{200}}) {
    seeds.add("stream", pieces(response, size) + byte(253) + pieces(response, size));
  }
  seeds.add("stream", pieces(response + response, 60));
  seeds.add("stream",
            pieces(frame(FrameKind::Refusal, 0, 1, std::string(600, 'r')), 100) + byte(254));
}

// --- library, wire, frame ---

void addLibrary(Seeds& seeds) {
  constexpr std::uint32_t kIds[] = {0x1A0150, 0x1A0100, 0x1A0143, 0x1A01A3,
                                    0x1A0253, 0x1A0273, 0x1A0333};
  const auto delivered = [&](std::uint32_t id, const std::string& payload) {
    const auto at = std::find(std::begin(kIds), std::end(kIds), id) - std::begin(kIds);
    return byte(0) + byte(static_cast<unsigned>(at)) + piece(payload);
  };
  std::string all;
  for (const auto& [id, payload] : deliveries()) {
    seeds.add("library", delivered(id, payload));
    all += delivered(id, payload);
  }
  seeds.add("library", all);
  // Answers: result, strings, flag or index; roles; records.
  const std::string strings(
      "\x0a\x00\x12\x04"
      "1500\x18\x01",
      10);
  const std::string roles("\x0a\x00\x10\x14\x18\x32", 6);
  const std::string error("\x0a\x02\x08\x02", 4);
  for (unsigned call = 0; call < 16; ++call) {
    for (const std::string& answer : {strings, roles, error}) {
      // The answer to the request, and to the registration that may follow.
      seeds.add("library", byte(1) + byte(call) + piece("1400") + piece(answer) + piece("") +
                               byte(1) + byte(call) + piece("x") + piece(answer));
    }
  }
}

void addMessages(Seeds& seeds) {
  auto all = requests();
  for (auto& delivery : deliveries()) all.push_back(std::move(delivery));
  for (const auto& [id, payload] : all) {
    seeds.add("wire", number(id & 0xffff) + payload);
    if (PlatformSchema::isRepeatedOnReconnect(id))
      seeds.add("frame", number(id & 0xffff) + payload);
  }
  ConfigIF::InstValue value;
  Helper::addVarName(value.mutable_inst(), kSpeed);
  value.add_values("1");
  seeds.add("wire", number(0) + value.inst().SerializeAsString());
  seeds.add("wire", number(0) + value.SerializeAsString());
  seeds.add("wire", number(0) + result().SerializeAsString());
  seeds.addAll(
      "frame",
      {number(0x110) + Fuzz::helloOf(PbUtility::ConnectionUse::Delivery, 3, "ui"),
       number(0x110) + Fuzz::helloOf(PbUtility::ConnectionUse::Requests, 3, "ui").substr(24),
       number(0) + encode(PbUtility::Welcome{5}), number(0) + encode(PbUtility::Refusal{3, "no"})});
}

// --- Files that people write ---

void addTexts(Seeds& seeds) {
  for (const char* key : {"network.hostname", "network.eth[1].mtu", "sensors.temp[-2]",
                          "3:engine.speed", "net..mtu", "a[1].b[2", "x.y[99999999999]"}) {
    seeds.add("key_notation", byte(1) + key);
  }
  seeds.add("key_notation",
            byte(0) + byte(3) + number(1) + number(2) + piece("Net.a") + piece("b.c"));
  seeds.addAll("pattern", {"[a-z]+[0-9]*\neth0\nETH\n", "(a|b){2,5}(c)?\nabab\naac",
                           "[[:digit:]]{1,3}(\\.[0-9]+)*\n10.0", "((a*)*)*b\naaaaaaaaaaaaaaaa",
                           "(((((x?){9}){9})))\nxx", "[^]a-]\\)\\\n]", "(a)\\1\naa"});
  seeds.addAll("roles", {"default = \"user\"\n[users]\nui = \"installer\"\n1001 = "
                         "\"factory\"\n[groups]\nnet = \"service\"\n",
                         "default = 3\n[users]\nnobody-here = \"user\"\nui = \"king\"\n[other]\n",
                         "[groups]\n4294967296 = \"user\"\n"});
  // Each is one text in several lines of source.
  // NOLINTBEGIN(bugprone-suspicious-missing-comma)
  seeds.addAll(
      "definitions",
      {"[variable.\"net.mtu\"]\ntype = \"int\"\nmin = 68\nmax = 9000\ndefault = 1500\n",
       "[variable.\"net.eth.mtu\"]\ntype = \"int\"\ndefault = 1\ngroup-instances = { from = 0, to "
       "= 3 }\n"
       "[variable.\"net.eth[1].mtu\"]\ndefault = 2\n\n----\n[variable.\"net.eth[1].mtu\"]\nmax = "
       "7\n",
       "[variable.\"3:a.b\"]\ntype = \"enumeration\"\noptions = [\"x\", \"y\"]\ndefault-index = 1\n"
       "read-role = \"service\"\nwrite-role = \"factory\"\nsecret = true\ndescription = \"d\"\n",
       "[variable.\"a.s\"]\ntype = \"string\"\npattern = \"[a-z]+\"\nmax-length = 9\ndefault = "
       "\"abc\"\nread-only = true\n",
       "[variable.\"a.l\"]\ntype = \"list\"\nmax-elements = 3\ndefault = [\"a\", \"b\"]\ninstances "
       "= [1, 5]\n"});
  // NOLINTEND(bugprone-suspicious-missing-comma)
  seeds.addAll(
      "import",
      {"\"net.mtu\" = 1500\n\"net.dns\" = [\"a\", \"b\"]\n[net]\nname = \"x\"\n\"on\" = true\n",
       "{\"net.mtu\": 1500, \"net.dns\": [\"a\", {\"base64\": \"//4=\"}], \"x\": null, \"y\": 1.5}",
       "\"a\\\\xff.b\" = { base64 = \"//4=\" }\n\"c.d\" = \"\"\"\nlines\n\"\"\"\n",
       "{\"a.b\": [[1]], \"a.b\": {\"c\": 2}}"});
}

void addStore(Seeds& seeds) {
  const auto patch = [](unsigned which, unsigned at, unsigned how, unsigned what) {
    return byte(which) + byte(at >> 8) + byte(at & 0xff) + byte(how) + byte(what);
  };
  seeds.addAll(
      "store",
      {byte(0) + piece("SQLite format 3") + "log", byte(1), byte(5) + piece("no snapshot"),
       byte(1) + patch(1, 0, 2, 1), byte(1) + patch(1, 100, 10, 255),
       byte(1) + patch(1, 4096, 0, 0), byte(1) + patch(0, 32, 0, 0), byte(1) + patch(0, 40, 10, 3),
       byte(1) + patch(1, 60, 3, 2), byte(3) + std::string("\3\0\0\0abc\0\0\0\0", 11)});
  const std::string value =
      piece(std::string("\4\0\0\0"
                        "1400",
                        8));
  const std::string name = piece("net") + byte(0) + piece("mtu") + byte(0);
  seeds.add("store", byte(2) + byte(0) + name + byte(31) + value + value + number(0) + byte(1) +
                         byte(9) + number(3) + number(4));
  for (const char* snapshot : {"", "broken"}) {
    seeds.add("store", byte(5) + piece(snapshot) + patch(1, 4096, 0, 0));
  }
}

// A script's steps: bytes, a field that opens, its end, and all since then so many times.
std::string bytesOf(const std::string& bytes) { return byte(0) + piece(bytes); }
std::string fieldOf(unsigned number, const std::string& inside) {
  return byte(1) + byte(number) + inside + byte(2);
}
std::string times(std::size_t count) { return byte(3) + number(count); }

void addBounds(Seeds& seeds) {
  const std::vector<std::uint32_t> ids = PlatformSchema::messageIds();
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::string message = byte(static_cast<unsigned>(i));
    for (unsigned field = 1; field < 8; ++field) {
      const std::string empty = fieldOf(field, "");
      const std::string node = fieldOf(1, bytesOf("\x08\x01"));
      const std::string deep = fieldOf(field, fieldOf(1, node + times(200)) + times(3));
      seeds.addAll("bounds", {message + empty + times(300), message + empty + times(20'000),
                              message + deep + times(500)});
    }
  }
  for (const auto& [id, payload] : requests()) {
    const auto at = std::find(ids.begin(), ids.end(), id) - ids.begin();
    seeds.add("bounds", byte(static_cast<unsigned>(at)) + bytesOf(payload) + times(100));
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) return 2;
  Seeds seeds(arguments[1]);
  addService(seeds);
  addServer(seeds);
  addLibrary(seeds);
  addMessages(seeds);
  addTexts(seeds);
  addStore(seeds);
  addBounds(seeds);
  return 0;
}
