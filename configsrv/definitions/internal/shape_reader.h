// Reads the fields of a variable, all layers and refinements laid over each other, as a shape.
#pragma once

#include <memory>
#include <vector>

#include "configsrv/definitions/definitions.h"
#include "configsrv/definitions/internal/layers.h"

namespace ConfigSrv {

// Null after a mistake, be it in a single field or in what the fields mean together. The chain has
// one definition at least.
std::shared_ptr<const VariableShape> readShape(const Chain& chain, std::vector<Mistake>& mistakes);

}  // namespace ConfigSrv
