#include "appconfig/wire/read_inst.h"

#include <gtest/gtest.h>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"

namespace AppConfig {
namespace {

TEST(ReadInstTest, AKeyThatWasWrittenIsReadBackWithItsNamespace) {
  for (const char* text : {"net.mtu", "net.eth[2].mtu[-3]", "7:net.eth.mtu"}) {
    ConfigVar key("", 0, "", 0);
    ASSERT_TRUE(parseKey(text, key).ok()) << text;
    ConfigIF::Inst inst;
    ProtobufMessageHelper::addVarName(&inst, key);
    const std::optional<ConfigVar> read = readInst(inst);
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(formatKey(*read), text);
  }
}

TEST(ReadInstTest, APathThatNamesNoVariableIsNothing) {
  ConfigIF::Inst inst;
  EXPECT_FALSE(readInst(inst));
  ConfigIF::Node* const node = inst.add_path();
  node->set_name("cfg");
  node->set_instance(3);
  EXPECT_FALSE(readInst(inst));
}

}  // namespace
}  // namespace AppConfig
