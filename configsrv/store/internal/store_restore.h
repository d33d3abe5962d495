// store_restore: copies of a store that take a store's place: FILE.restore, and the snapshot.
//
// FILE.restore is finished and durable before it gets that name; the next opening takes it. It is
// copied to FILE.new and made ready there, under a new id. Then what the store was so far is set
// aside as FILE.replaced-<UTC time> with its companions, FILE.new gets the store's name, the snapshot
// of the old store goes, and FILE.restore goes last: wherever this is cut off, the next opening does
// it again from the start.
//
// Errors:  a copy that is no good never keeps a store from being opened: it is set aside as
//          FILE.restore.damaged-<UTC time>, and the notice says so. One that cannot be put in place
//          now, for want of space, waits for the next opening.
// Threads: one at a time.
#pragma once

#include <cstdint>
#include <string>

#include "configsrv/store/internal/store_contents.h"
#include "configsrv/store/internal/store_files.h"
#include "configsrv/store/store.h"

namespace ConfigSrv {

inline const StoreFormats& formatsOf(const StoreOptions& options) {
  return options.formats != nullptr ? *options.formats : presentFormats();
}

// Never 0.
std::uint64_t makeStoreId();

// Nothing was read yet, so whatever is wrong is not the file's contents.
StoreContents notOpened(const Database& database);

// Checks and reads everything once the file has the newest format.
StoreContents upgradeAndRead(Database& database, std::int64_t format, const StoreFormats& formats);

// Checks a closed file whole, brings it to the newest format and gives it an id of its own: under the
// old one, older revisions would be taken for news.
//
// Records of another time are of no use where a copy is put on purpose; in a snapshot that takes the
// place of what it is a snapshot of, they may be all that is left.
enum class Records { Keep, Drop };
StoreContents prepareCopy(const std::string& file, const StoreOptions& options, Records records);

// Puts FILE.restore in the store's place, when there is one; appends what was done to the notice.
StoreStatus takeRestore(const StoreFiles& files, const StoreOptions& options, std::string* notice);

// Whether takeRestore() would take FILE.restore as it is now, and its revision. Changes neither it
// nor the store, which may be open meanwhile.
StoreStatus checkRestore(const StoreFiles& files, const StoreOptions& options,
                         std::uint64_t* revision);

}  // namespace ConfigSrv
