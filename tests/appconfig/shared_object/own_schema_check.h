// Whether an application's own messages still are what its schema says.
#pragma once

#include <string>

#include "platform/schema/config_if.pb.h"

namespace OwnSchema {

// True when a message survives being written, read and described.
inline bool works() {
  ConfigIF::ReadReq request;
  request.add_peaks()->set_altitude(4810.5);
  ConfigIF::ReadReq copy;
  return copy.ParseFromString(request.SerializeAsString()) && copy.peaks_size() == 1 &&
         copy.peaks(0).altitude() == 4810.5 && copy.range() == "alps" &&
         copy.GetDescriptor()->field_count() == 2 &&
         copy.DebugString() == "peaks {\n  altitude: 4810.5\n}\n";
}

}  // namespace OwnSchema
