// Selection: which variables a listing or a watch is about.
//
// Shape:   a dotted name selects the variable or group of that name, all below it, all instances of
//          these: "network" and "network.eth" select network.eth[1].mtu. With an instance it
//          selects just that one: "network.eth[1]" the group's, "network.eth[1].mtu" the
//          variable's. A namespace ("3:engine") selects within it; without one all namespaces are
//          selected.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "appconfig/core/config_var.h"
#include "tools/appcfg/outcome.h"
#include "tools/appcfg/verb.h"

namespace AppCfgTool {

class Selection {
 public:
  // Everything, of the settings' namespace if they have one.
  explicit Selection(const Settings& settings) : nameSpace_(settings.nameSpace) {}

  // Narrows it to what the text says.
  Outcome read(const std::string& text);

  // Narrows it to one namespace.
  void keepTo(std::int32_t nameSpace) { nameSpace_ = nameSpace; }

  bool selects(const ConfigVar& var) const;

  // Dotted name that everything selected has or lies below; empty: everything.
  const std::string& name() const { return name_; }
  std::optional<std::int32_t> nameSpace() const { return nameSpace_; }

 private:
  struct GroupInstance {
    std::string name;
    int instance;
  };

  Outcome readKeyLike(const std::string& text);

  std::optional<std::int32_t> nameSpace_;
  std::string name_;
  // One or both are set when the text names an instance: "a.b[1]" can be either.
  std::optional<ConfigVar> variable_;
  std::optional<GroupInstance> group_;
};

}  // namespace AppCfgTool
