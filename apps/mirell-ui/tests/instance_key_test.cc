#include "instance_key.h"

#include <gtest/gtest.h>

#include "daemon_config.h"

namespace mirell::ui {
namespace {

// Reference values computed outside this code (32-bit FNV-1a of the text shown).
TEST(InstanceKey, DefaultKeyIsTheSameEverywhere) {
  const DaemonConfig defaults;
  EXPECT_EQ(InstanceKey(defaults.rtsp_port, defaults.pipe_name), "37d82621");  // "8554|127.0.0.1:8555"
  EXPECT_EQ(InstanceKey(8554, "127.0.0.1:8555"), InstanceKey(8554, "127.0.0.1:8555"));
}

TEST(InstanceKey, TheSeparatorKeepsSplitsApart) {
  EXPECT_EQ(InstanceKey(85, "54x"), "b5ef5405");
  EXPECT_EQ(InstanceKey(855, "4x"), "77221eab");
}

TEST(InstanceKey, WrappedPortGivesTheKeyOfTheWrappedValue) {
  EXPECT_EQ(InstanceKey(static_cast<std::uint16_t>(70000), "127.0.0.1:8555"), "872dd3a1");
}

TEST(InstanceKey, IsEightLowerCaseHexDigits) {
  for (const auto& key : {InstanceKey(0, ""), InstanceKey(65535, "x"), InstanceKey(1, "\xff")}) {
    ASSERT_EQ(key.size(), 8u);
    for (char c : key) EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')) << key;
  }
}

TEST(LogFileName, DefaultInstanceAndOthers) {
  const std::string default_key = InstanceKey(8554, "127.0.0.1:8555");
  EXPECT_EQ(LogFileName(InstanceKey(8554, "127.0.0.1:8555"), default_key), "mirell-ui.log");
  EXPECT_EQ(LogFileName(InstanceKey(8554, "127.0.0.1:9999"), default_key),
            "mirell-ui-" + InstanceKey(8554, "127.0.0.1:9999") + ".log");
  EXPECT_NE(InstanceKey(8554, "127.0.0.1:9999"), default_key);
}

}  // namespace
}  // namespace mirell::ui
