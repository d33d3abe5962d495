// Reads the fields of a variable, all layers and refinements laid over each other, as a shape.
#pragma once

#include <memory>
#include <vector>

#include "configsrv/definitions/definitions.h"
#include "configsrv/definitions/internal/layers.h"

namespace ConfigSrv {

// Null after a mistake, either in a single field or in what the fields mean together. The chain has
// at least one definition.
std::shared_ptr<const VariableShape> readShape(const Chain& chain, std::vector<Mistake>& mistakes);

}  // namespace ConfigSrv
