// Standard input is taken apart by what the variable is, which the service is asked for: a certificate
// for a string is one value, however many lines it has. Who may write a variable and not read it is
// not told; one line is the same either way, and with more the user has to say.
#include "tools/appcfg/given_value.h"

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tools/appcfg/read_text.h"

namespace AppCfgTool {
namespace {

enum class Shape { OneElement, List, NotTold };

Outcome askShape(Session& session, const ConfigVar& var, Shape& shape) {
  ConfigIF::ReadAttributesRsp response;
  Outcome asked = session.ask({"set", AppConfig::formatKey(var)},
                              AppConfig::ProtobufMessageHelper::getReadAttributesRequest(
                                  session.client(), session.role(), var),
                              response);
  shape = response.attributes().type() == ConfigIF::VALUE_LIST ? Shape::List : Shape::OneElement;
  if (asked.code != kExitDenied) return asked;
  shape = Shape::NotTold;
  return {};
}

std::string withoutLastBreak(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

Outcome elementsByShape(Context& context, const ConfigVar& var, const std::string& text,
                        std::list<std::string>& value) {
  Shape shape = Shape::OneElement;
  Outcome asked = askShape(context.session, var, shape);
  if (!asked.ok()) return asked;
  value = elementsOf(text, '\n');
  if (shape == Shape::NotTold && value.size() > 1) {
    return usageMistake("this role may not see whether " + AppConfig::formatKey(var) +
                            " is a list, so what the lines of standard input are is not clear",
                        "with --null each element ends with a zero byte instead");
  }
  if (shape == Shape::OneElement) value = {withoutLastBreak(text)};
  return {};
}

// A command that failed writes nothing into its pipe: that must not empty a value.
Outcome readStandardInput(Context& context, const Arguments& arguments, const ConfigVar& var,
                          std::list<std::string>& value) {
  std::string text;
  Outcome read = readText("-", text);
  if (!read.ok()) return read;
  if (text.empty()) {
    return usageMistake("there is nothing on standard input",
                        "a line break alone is one empty string, --empty a list without elements");
  }
  if (!arguments.has("null")) return elementsByShape(context, var, text, value);
  value = elementsOf(text, '\0');
  return {};
}

}  // namespace

Positional valuePositional() {
  return {"VALUE", "one for each element; behind -- they may begin with a dash", 0, kAnyNumber};
}

// No letter for --null: with -0 an option, -0.5 would be no value.
std::vector<Option> valueOptions() {
  return {{"empty", 0, "", "a list without elements, instead of VALUE"},
          {"stdin", 0, "", "read the value from standard input; of a list one element a line"},
          {"null", 0, "", "with --stdin: each element ends with a zero byte instead"}};
}

std::list<std::string> elementsOf(const std::string& text, char end) {
  std::list<std::string> elements;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t stop = std::min(text.find(end, at), text.size());
    elements.push_back(text.substr(at, stop - at));
    at = stop + 1;
  }
  return elements;
}

// A command line that says neither a value nor --empty is more likely a slip (an unset shell variable
// without quotes) than the wish for a list without elements.
Outcome readGivenValue(Context& context, const Arguments& arguments, const ConfigVar& var,
                       std::list<std::string>& value) {
  const std::vector<std::string>& given = arguments.all("VALUE");
  const bool fromStdin = arguments.has("stdin");
  const int ways = (given.empty() ? 0 : 1) + (arguments.has("empty") ? 1 : 0) + (fromStdin ? 1 : 0);
  if (ways != 1) {
    return usageMistake(ways == 0 ? "a value is missing" : "either values, --empty or --stdin",
                        "'' is one empty string, --empty a list without elements");
  }
  if (arguments.has("null") && !fromStdin) return usageMistake("--null belongs to --stdin");
  if (fromStdin) return readStandardInput(context, arguments, var, value);
  value.assign(given.begin(), given.end());
  return {};
}

}  // namespace AppCfgTool
