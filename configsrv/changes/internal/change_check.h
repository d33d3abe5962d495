// What can be said of a change without asking anybody: may the requester make it, does it fit the
// variable, what would it come to.
//
// Threads:  plain functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "configsrv/changes/change.h"
#include "configsrv/model/model.h"

namespace ConfigSrv {

// Success, or why somebody of this role cannot change the variable so as it stands.
ChangeOutcome checkChange(const Variable& variable, const StoreChange& change,
                          AppConfig::SecurityRole role);

// Whether the variable is like that already, and would be after the next start, too.
bool changesNothing(const Variable& variable, const StoreChange& change);

// Whether it is the value that changes: only then have providers a say.
bool changesValue(const StoreChange& change);

// The revision at which the part of the variable that the change is about last changed; of several
// the newest.
std::uint64_t partChangedAt(const Variable& variable, const StoreChange& change);

// The value that the variable would have; a part of one of the two.
const std::list<std::string>& valueAfter(const Variable& variable, const StoreChange& change);

// What the store should keep instead of the change as it was asked for; null: the same. A value that
// is the default is no difference to remember; options keep the default index that was theirs,
// whatever definitions come; and what was left out of the variable goes, so that what is
// acknowledged here is what the next start finds.
std::unique_ptr<const StoreChange> storedInstead(const Variable& variable,
                                                 const StoreChange& change);

// Bytes of the strings that the change carries, and how many those are.
std::size_t bytesOf(const StoreChange& change);
std::size_t stringsOf(const StoreChange& change);

// A failure with a text that begins with the variable.
ChangeOutcome failure(const ConfigVar& key, eErrorT error, const std::string& text);

}  // namespace ConfigSrv
