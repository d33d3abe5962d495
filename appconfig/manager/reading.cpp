// The outcome of a request for a value, in the caller's terms. The request itself, and what of its answer
// goes into the cache, is that of any read past the cache.
#include "appconfig/manager/reading.h"

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/manager/internal/local_key.h"
#include "appconfig/service/platform_cfg_service.h"

namespace AppConfig {

namespace {

Absence absenceOf(const ReadEnd& end) {
  if (!end.isAsked) return Absence::NoEndpoint;
  if (end.callStatus != 0) return Absence::ServiceAway;
  switch (end.error) {
    case eErrNone:
      return Absence::None;
    case eErrNotFound:
      return Absence::Unknown;
    case eErrDenied:
      return Absence::Denied;
    case eErrUnavailable:
      return Absence::ProviderAway;
    case eErrTimedOut:
      return Absence::ProviderTimedOut;
    default:
      return Absence::Failed;
  }
}

const char* wordsFor(Absence absence) {
  switch (absence) {
    case Absence::None:
      break;
    case Absence::Unknown:
      return "no such variable";
    case Absence::Denied:
      return "the role is too low to read it";
    case Absence::NoEndpoint:
      return "there is no endpoint to ask the service by";
    case Absence::ServiceAway:
      return "the service does not answer";
    case Absence::ProviderAway:
      return "its provider went away";
    case Absence::ProviderTimedOut:
      return "its provider does not answer";
    case Absence::Failed:
      return "the service cannot read it";
  }
  return "";
}

// The service's own words where it has some.
std::string reasonFor(Absence absence, const ConfigVar& var, const std::string& told) {
  if (absence == Absence::None || !told.empty()) return told;
  return var.dottedName() + ": " + wordsFor(absence);
}

Origin originOf(const ReadEnd& end) {
  if (!end.tellsDefault) return Origin::NotTold;
  return end.isDefault ? Origin::Default : Origin::Stored;
}

}  // namespace

Reading readWithReason(const ConfigVar& var, AppCfgManager* manager) {
  AppCfgManager* const facade = manager ? manager : AppCfgManager::getInstance();
  ReadEnd end;
  Reading reading;
  reading.value = facade->askForValue(var, end);
  reading.absence = absenceOf(end);
  reading.error = end.error;
  reading.callStatus = end.callStatus;
  reading.reason = reasonFor(reading.absence, var, end.message);
  if (reading.absence == Absence::None) {
    reading.origin = originOf(end);
  } else if (reading.absence == Absence::ServiceAway || reading.absence == Absence::NoEndpoint) {
    const bool isKnown =
        facade->isCacheable(var) && facade->cache_.copyValue(localKey(var), reading.value);
    if (isKnown) reading.origin = Origin::LastKnown;
  }
  return reading;
}

}  // namespace AppConfig
