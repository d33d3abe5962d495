// A directory of definition files that a test writes and loads.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "appconfig/core/key_notation.h"
#include "configsrv/definitions/definitions.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {

inline std::string readFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  EXPECT_TRUE(stream) << path;
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

inline ConfigVar keyOf(const std::string& text) {
  ConfigVar key("", 0, "", 0);
  EXPECT_TRUE(AppConfig::parseKey(text, key).ok()) << text;
  return key;
}

class DefinitionsDir {
 public:
  DefinitionsDir& with(const std::string& name, const std::string& text) {
    std::ofstream(directory_.file(name), std::ios::binary) << text;
    return *this;
  }
  LoadResult load() const { return loadDefinitions({directory_.path()}); }
  const std::string& path() const { return directory_.path(); }

  Definitions definitions() const {
    LoadResult result = load();
    EXPECT_EQ(formatMistakes(result.mistakes), "");
    return std::move(result.definitions);
  }

  // As they are printed, with names instead of paths.
  std::string mistakes() const {
    const LoadResult result = load();
    EXPECT_TRUE(result.mistakes.empty() || result.definitions.empty());
    std::string text = formatMistakes(result.mistakes);
    const std::string prefix = directory_.path() + "/";
    for (std::size_t at = text.find(prefix); at != std::string::npos; at = text.find(prefix, at)) {
      text.erase(at, prefix.size());
    }
    return text;
  }

 private:
  TestSupport::TempDir directory_;
};

}  // namespace ConfigSrv
