// Read event by event rather than into a tree: the tree would keep only the last of two values for
// one key, and would not keep their order.
#include <nlohmann/json.hpp>

#include "tools/appcfg/document.h"
#include "tools/appcfg/text.h"

namespace AppCfgTool {
namespace {

using Form = DocumentEntry::Form;

class Reader final : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit Reader(Document& document) : document_(document) {}

  // What is wrong with the text; empty: nothing.
  const std::string& mistake() const { return mistake_; }

  bool null() override { return spoil(); }
  bool boolean(bool value) override { return take(value ? "true" : "false", Form::Bool); }
  bool number_integer(number_integer_t value) override {
    return take(std::to_string(value), Form::Number);
  }
  bool number_unsigned(number_unsigned_t value) override {
    return take(std::to_string(value), Form::Number);
  }
  bool number_float(number_float_t, const string_t&) override { return spoil(); }
  bool string(string_t& value) override {
    if (place_ != Place::Encoded) return take(value, Form::Text);
    const auto bytes = fromBase64(value);
    return bytes && isBase64_ && encoded_++ == 0 ? add(*bytes, Form::Text) : spoil();
  }
  bool binary(binary_t&) override { return spoil(); }

  bool start_object(std::size_t) override {
    if (place_ == Place::Outside) return enter(Place::Entries);
    if (place_ == Place::Encoded || nested_ > 0) return sink();
    outer_ = place_;
    encoded_ = 0;
    return enter(Place::Encoded);
  }
  bool key(string_t& name) override {
    if (nested_ > 0) return true;
    isBase64_ = name == "base64";
    if (place_ == Place::Encoded) return isBase64_ || spoil();
    document_.push_back({name, Form::Text, {}, {}});
    return true;
  }
  bool end_object() override {
    if (nested_ > 0) return rise();
    if (place_ == Place::Entries) return enter(Place::Outside);
    if (encoded_ == 0) spoil();
    return enter(outer_);
  }
  bool start_array(std::size_t) override {
    if (place_ == Place::Outside) return fail("the text is no object");
    if (place_ != Place::Entries || nested_ > 0) return sink();
    document_.back().form = Form::List;
    return enter(Place::List);
  }
  bool end_array() override { return nested_ > 0 ? rise() : enter(Place::Entries); }

  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& error) override {
    return fail("at byte " + std::to_string(position) + ": " + plain(error.what()));
  }

 private:
  enum class Place { Outside, Entries, List, Encoded };

  bool enter(Place place) {
    place_ = place;
    return true;
  }
  // Into and out of what no value can hold.
  bool sink() {
    ++nested_;
    return spoil();
  }
  bool rise() {
    --nested_;
    return true;
  }
  bool spoil() {
    if (place_ == Place::Outside) return fail("the text is no object");
    document_.back().problem = kNoValue;
    return true;
  }
  bool fail(const std::string& what) {
    mistake_ = what;
    return false;
  }
  bool take(const std::string& bytes, Form form) {
    const bool fits = (place_ == Place::Entries || place_ == Place::List) && nested_ == 0;
    return fits ? add(bytes, form) : spoil();
  }
  bool add(const std::string& bytes, Form form) {
    DocumentEntry& entry = document_.back();
    entry.value.push_back(bytes);
    if (entry.form != Form::List) entry.form = form;
    return true;
  }
  // Without the library's own "[json.exception.parse_error.101] parse error at line 1, column 2: ".
  static std::string plain(const std::string& text) {
    const std::size_t line = text.find("line ");
    return line == std::string::npos ? text : text.substr(line);
  }

  Document& document_;
  std::string mistake_;
  Place place_ = Place::Outside;
  // Where an encoded string stands.
  Place outer_ = Place::Entries;
  bool isBase64_ = false;
  unsigned encoded_ = 0;
  unsigned nested_ = 0;
};

}  // namespace

Outcome readJson(std::string_view text, const std::string& name, Document& document) {
  Reader reader(document);
  const bool parsed = nlohmann::json::sax_parse(text.begin(), text.end(), &reader);
  if (parsed && reader.mistake().empty()) return {};
  return failure(kExitFailed, name + ": " + escapeLine(reader.mistake()));
}

}  // namespace AppCfgTool
