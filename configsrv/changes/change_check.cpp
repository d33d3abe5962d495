// Each kind of change has its rules, which stand in one function of Check as a list of steps. The
// steps are in the order of what the requester may learn: first what its role forbids, so that who
// may not write hears no more than that, then what the variable allows.
#include "configsrv/changes/internal/change_check.h"

#include <algorithm>

#include "appconfig/core/key_notation.h"
#include "appconfig/core/role_names.h"

namespace ConfigSrv {
namespace {

using AppConfig::roleName;
using AppConfig::SecurityRole;

// One function for each kind of change.
template <typename... Functions>
struct Overloaded : Functions... {
  using Functions::operator()...;
};
template <typename... Functions>
Overloaded(Functions...) -> Overloaded<Functions...>;

template <typename Strings>
std::size_t bytesOfAll(const Strings& strings) {
  std::size_t bytes = 0;
  for (const std::string& string : strings) bytes += string.size();
  return bytes;
}

std::string moreThan(std::size_t count, const char* what, std::size_t limit) {
  return std::to_string(count) + " " + what + " are more than the limit of " +
         std::to_string(limit);
}

// Checks one change of one variable; each step returns success or the reason.
class Check {
 public:
  using Verdict = Base::Status<eErrorT>;

  Check(const Variable& variable, SecurityRole role) : variable_(variable), role_(role) {}

  Verdict run(const StoreChange& change) const {
    return std::visit([this](const auto& what) { return check(what); }, change.what);
  }

 private:
  Verdict check(const StoreChange::SetValue& change) const {
    return firstFailure([&] { return mayWrite(); }, [&] { return canBeWritten(); },
                        [&] { return sizeFits(change.value); },
                        [&] { return valueFits(change.value); });
  }

  Verdict check(const StoreChange::ResetValue&) const {
    return firstFailure([&] { return mayWrite(); }, [&] { return canBeWritten(); },
                        [&] { return valueFits(shape().defaultValue); });
  }

  Verdict check(const StoreChange::SetOptions& change) const {
    const std::vector<std::string>& options =
        change.options ? *change.options : variable_.options();
    const std::uint32_t index = change.defaultIndex.value_or(variable_.defaultIndex());
    return firstFailure([&] { return mayWrite(); }, [&] { return mayReadOptions(); },
                        [&] { return canBeWritten(); }, [&] { return sizeFits(options); },
                        [&] { return optionsFit(options); },
                        [&] { return indexFits(index, options); },
                        [&] { return valueIsAmong(options); });
  }

  Verdict check(const StoreChange::SetAccess& change) const {
    const auto mayDemandIfGiven = [&](const std::optional<int>& role) {
      return role ? mayDemand(static_cast<SecurityRole>(*role)) : Verdict{};
    };
    return firstFailure([&] { return mayChangeAccess(); },
                        [&] { return mayDemandIfGiven(change.readRole); },
                        [&] { return mayDemandIfGiven(change.writeRole); });
  }

  Verdict check(const StoreChange::ResetAttributes&) const {
    return firstFailure([&] { return mayChangeAccess(); },
                        [&] { return valueIsAmong(shape().options); });
  }

  Verdict mayWrite() const {
    if (role_ >= variable_.writeRole()) return {};
    return fail(eErrDenied,
                "writing needs the role " + text(variable_.writeRole()) + ", not " + text(role_));
  }

  // Whether new options fit tells whether the value is among them, and so, asked often enough, what
  // the value is.
  Verdict mayReadOptions() const {
    if (role_ >= variable_.readRole()) return {};
    return fail(eErrDenied, "changing its options needs the role " + text(variable_.readRole()) +
                                ", for that tells of its value, not " + text(role_));
  }

  // Who may only write must not give themselves the right to read.
  Verdict mayChangeAccess() const {
    const SecurityRole needed = std::max(variable_.readRole(), variable_.writeRole());
    if (role_ >= needed) return {};
    return fail(eErrDenied,
                "changing who may use it needs the role " + text(needed) + ", not " + text(role_));
  }

  // Nobody locks themselves out.
  Verdict mayDemand(SecurityRole wanted) const {
    if (wanted <= role_) return {};
    return fail(eErrDenied, "the role " + text(role_) + " cannot demand the role " + text(wanted));
  }

  Verdict canBeWritten() const {
    return shape().readOnly ? fail(eErrReadOnly, "the variable is read-only") : Verdict{};
  }

  Verdict sizeFits(const std::list<std::string>& value) const {
    if (value.size() > kMaxElements)
      return fail(eErrLimit, moreThan(value.size(), "elements", kMaxElements));
    if (bytesOfAll(value) > kMaxValueBytes)
      return fail(eErrLimit, moreThan(bytesOfAll(value), "bytes", kMaxValueBytes));
    return {};
  }

  Verdict sizeFits(const std::vector<std::string>& options) const {
    if (options.size() > kMaxOptions)
      return fail(eErrLimit, moreThan(options.size(), "options", kMaxOptions));
    if (bytesOfAll(options) > kMaxValueBytes)
      return fail(eErrLimit, moreThan(bytesOfAll(options), "bytes", kMaxValueBytes));
    return {};
  }

  Verdict valueFits(const std::list<std::string>& value) const {
    const Base::Status<> fits = checkValue(shape(), variable_.options(), value);
    if (fits.ok()) return {};
    if (role_ < variable_.readRole() && isAboutOptions(value))
      return fail(eErrInvalidValue, "the value is none of its options");
    return fail(eErrInvalidValue, fits.text);
  }

  // Whether a value that does not fit would, were it among the options. The reason then names the
  // options, which are for readers alone.
  bool isAboutOptions(const std::list<std::string>& value) const {
    return checkValue(shape(), {value.begin(), value.end()}, value).ok();
  }

  Verdict optionsFit(const std::vector<std::string>& options) const {
    if (options.empty() && shape().type == ValueType::Enumeration)
      return fail(eErrInvalidValue, "an enumeration needs options");
    for (const std::string& option : options) {
      const Base::Status<> fits = checkValue(shape(), {option}, {option});
      if (!fits.ok()) return fail(eErrInvalidValue, fits.text);
    }
    return {};
  }

  Verdict indexFits(std::uint32_t index, const std::vector<std::string>& options) const {
    if (index < std::max<std::size_t>(1, options.size())) return {};
    return fail(eErrInvalidValue, "the default index " + std::to_string(index) + " is past the " +
                                      std::to_string(options.size()) + " options");
  }

  // Does not quote the value: the requester need not be allowed to read it.
  Verdict valueIsAmong(const std::vector<std::string>& options) const {
    if (checkValue(shape(), options, variable_.value()).ok()) return {};
    return fail(eErrInvalidValue, "the present value is not among the options");
  }

  // Later steps may rely on earlier ones, so none runs after a failure.
  template <typename Step, typename... Later>
  static Verdict firstFailure(const Step& step, const Later&... later) {
    Verdict verdict = step();
    if constexpr (sizeof...(later) > 0) {
      if (verdict.ok()) return firstFailure(later...);
    }
    return verdict;
  }

  Verdict fail(eErrorT error, const std::string& reason) const {
    return {error, AppConfig::formatKey(variable_.key()) + ": " + reason};
  }
  static std::string text(SecurityRole role) { return std::string(roleName(role)); }
  const VariableShape& shape() const { return variable_.shape(); }

  const Variable& variable_;
  const SecurityRole role_;
};

bool sameRole(const std::optional<int>& wanted, SecurityRole present) {
  return !wanted || *wanted == present;
}

}  // namespace

ChangeOutcome checkChange(const Variable& variable, const StoreChange& change, SecurityRole role) {
  return {Check(variable, role).run(change)};
}

bool changesNothing(const Variable& variable, const StoreChange& change) {
  const VariableShape& shape = variable.shape();
  return std::visit(
      Overloaded{
          [&](const StoreChange::SetValue& set) {
            return set.value == variable.value() && !variable.hasLeftOutValue();
          },
          [&](const StoreChange::ResetValue&) {
            return variable.hasDefaultText() && !variable.hasLeftOutValue();
          },
          [&](const StoreChange::SetOptions& set) {
            return (!set.options || *set.options == variable.options()) &&
                   (!set.defaultIndex || *set.defaultIndex == variable.defaultIndex()) &&
                   !variable.hasLeftOutOptions();
          },
          [&](const StoreChange::SetAccess& set) {
            return sameRole(set.readRole, variable.readRole()) &&
                   sameRole(set.writeRole, variable.writeRole());
          },
          [&](const StoreChange::ResetAttributes&) {
            return variable.options() == shape.options &&
                   variable.defaultIndex() == shape.defaultIndex &&
                   variable.readRole() == shape.readRole &&
                   variable.writeRole() == shape.writeRole && !variable.hasLeftOutOptions();
          },
      },
      change.what);
}

bool changesValue(const StoreChange& change) {
  return std::holds_alternative<StoreChange::SetValue>(change.what) ||
         std::holds_alternative<StoreChange::ResetValue>(change.what);
}

std::uint64_t partChangedAt(const Variable& variable, const StoreChange& change) {
  if (changesValue(change)) return variable.valueChangedAt();
  if (std::holds_alternative<StoreChange::SetOptions>(change.what))
    return variable.optionsChangedAt();
  if (std::holds_alternative<StoreChange::SetAccess>(change.what))
    return variable.accessChangedAt();
  return std::max(variable.optionsChangedAt(), variable.accessChangedAt());
}

const std::list<std::string>& valueAfter(const Variable& variable, const StoreChange& change) {
  if (const auto* set = std::get_if<StoreChange::SetValue>(&change.what)) return set->value;
  if (std::holds_alternative<StoreChange::ResetValue>(change.what))
    return variable.shape().defaultValue;
  return variable.value();
}

std::unique_ptr<const StoreChange> storedInstead(const Variable& variable,
                                                 const StoreChange& change) {
  const auto* set = std::get_if<StoreChange::SetValue>(&change.what);
  const bool isDefault = set != nullptr && set->value == variable.shape().defaultValue;
  const auto* options = std::get_if<StoreChange::SetOptions>(&change.what);
  const bool lacksIndex = options != nullptr && options->options && !options->defaultIndex;
  // Roles have no part in what else can be used.
  const bool forgets = !std::holds_alternative<StoreChange::SetAccess>(change.what) &&
                       (variable.hasLeftOutValue() || variable.hasLeftOutOptions());
  if (!isDefault && !lacksIndex && !forgets) return nullptr;
  auto stored = std::make_unique<StoreChange>(change);
  if (isDefault) stored->what = StoreChange::ResetValue{};
  if (lacksIndex)
    std::get<StoreChange::SetOptions>(stored->what).defaultIndex = variable.defaultIndex();
  if (forgets) stored->forgotten = {variable.hasLeftOutValue(), variable.hasLeftOutOptions()};
  return stored;
}

std::size_t bytesOf(const StoreChange& change) {
  if (const auto* set = std::get_if<StoreChange::SetValue>(&change.what))
    return bytesOfAll(set->value);
  const auto* set = std::get_if<StoreChange::SetOptions>(&change.what);
  return set != nullptr && set->options ? bytesOfAll(*set->options) : 0;
}

std::size_t stringsOf(const StoreChange& change) {
  if (const auto* set = std::get_if<StoreChange::SetValue>(&change.what)) return set->value.size();
  const auto* set = std::get_if<StoreChange::SetOptions>(&change.what);
  return set != nullptr && set->options ? set->options->size() : 0;
}

ChangeOutcome failure(const ConfigVar& key, eErrorT error, const std::string& text) {
  return {{error, AppConfig::formatKey(key) + ": " + text}};
}

}  // namespace ConfigSrv
