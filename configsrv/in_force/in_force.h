// InForce: which definitions and which table of roles the service runs by.
//
// Those that the files say, as long as the files are right. When they have mistakes, or cannot be
// read, the last good ones stay in force, which are kept beside the store (last_good.h): a stale line
// must not take the configuration away. Whoever looks after the device is told, by lines for the
// log and by a Standing for `appcfg status`.
//
// Definitions and roles stand apart: a mistake in the one leaves the other as its files say.
//
//   InForceFiles files({definitionsDirs, "/etc/appconfig/roles.toml", "/var/lib/appconfig/store.db"});
//   InForce inForce = files.read();
//   if (!inForce.isComplete) return fail(inForce.errors);
//   ... open the store: from here on nobody else writes beside it ...
//   for (const std::string& line : files.keep()) log.warning(line);
//
// Errors:   nothing good at all, neither in the files nor kept: isComplete is false, and the errors
//           are the mistakes. A table of roles that others could have written is another matter: it
//           is distrusted, and the rules without a table hold (access_policy.h).
// Threads:  one.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "configsrv/access/access_policy.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/in_force/last_good.h"

namespace ConfigSrv {

// How it stands with the files, for whoever asks.
struct Standing {
  // Whether what is in force are the last good ones, for the files have mistakes.
  bool lastGoodDefinitions = false;
  bool lastGoodRoles = false;
  // What is wrong with the files, "file:line: text".
  std::vector<std::string> mistakes{};
};

struct InForce {
  Definitions definitions;
  AccessPolicy access;
  Standing standing{};
  // False: there is nothing to run by.
  bool isComplete = true;
  // For the log. Mistakes in files are among the errors as they are.
  std::vector<std::string> errors{};
  std::vector<std::string> warnings{};
};

class InForceFiles {
 public:
  struct Places {
    std::vector<std::string> definitionsDirs;
    // Empty: the rules without a table.
    std::string rolesFile;
    // The last good ones are kept beside it; empty: nowhere.
    std::string storeFile;
  };
  explicit InForceFiles(Places places);

  InForce read();

  // Keeps what the files said at the last read(), where it was good. Returns a line for each that could
  // not be kept. Only for whoever has the store, since nobody else then writes beside it.
  std::vector<std::string> keep();

 private:
  void readDefinitions(InForce& inForce);
  void readRoles(InForce& inForce);
  void useLastGoodDefinitions(InForce& inForce, const std::vector<std::string>& mistakes);
  void useLastGoodRoles(InForce& inForce, const std::vector<std::string>& mistakes);

  const Places places_;
  const LastGood lastDefinitions_;
  const LastGood lastRoles_;
  // What is to be kept; nothing when it was not good.
  std::optional<std::vector<TextFile>> goodDefinitions_;
  std::optional<std::vector<TextFile>> goodRoles_;
};

}  // namespace ConfigSrv
