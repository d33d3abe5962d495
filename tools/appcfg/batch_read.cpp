#include "tools/appcfg/batch_read.h"

#include <algorithm>
#include <list>

#include "appconfig/wire/protobuf_message_helper.h"

namespace AppCfgTool {
namespace {

// Variables of one request.
constexpr std::size_t kReadAtOnce = 128;

using Position = std::vector<ConfigVar>::const_iterator;

// Large values may not fit into one answer: then the halves are asked for.
Outcome readPart(Session& session, Position from, Position to,
                 std::vector<ConfigIF::ReadRecord>& records) {
  const Purpose purpose{"read the present values", ""};
  ConfigIF::BatchReadRsp response;
  Outcome answered = session.exchange(purpose,
                                      AppConfig::ProtobufMessageHelper::getBatchReadRequest(
                                          session.client(), session.role(), {from, to}),
                                      response);
  if (!answered.ok()) return answered;
  if (response.result().error() == CommonIF::ERROR_LIMIT && to - from > 1) {
    const Position middle = from + (to - from) / 2;
    answered = readPart(session, from, middle, records);
    return answered.ok() ? readPart(session, middle, to, records) : answered;
  }
  answered = session.verdict(purpose, response.result());
  if (!answered.ok()) return answered;
  if (response.records_size() != to - from) {
    return failure(kExitFailed, "cannot read the present values: the answer is about others");
  }
  for (ConfigIF::ReadRecord& record : *response.mutable_records()) {
    records.push_back(std::move(record));
  }
  return {};
}

}  // namespace

Outcome readTogether(Session& session, const std::vector<ConfigVar>& vars,
                     std::vector<ConfigIF::ReadRecord>& records) {
  for (std::size_t from = 0; from < vars.size(); from += kReadAtOnce) {
    const auto begin = vars.begin() + static_cast<std::ptrdiff_t>(from);
    const std::size_t some = std::min(kReadAtOnce, vars.size() - from);
    Outcome read = readPart(session, begin, begin + static_cast<std::ptrdiff_t>(some), records);
    if (!read.ok()) return read;
  }
  return {};
}

}  // namespace AppCfgTool
