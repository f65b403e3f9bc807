// Tests of the stored settings write to a configuration directory of their own: QSettings looks
// for it once, so it is set before the first use and shared by every test of the process.
#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QSettings>
#include <cstdlib>
#include <filesystem>

#include "mirell/testsupport/subprocess.h"

namespace mirell::settings {

class TemporarySettings : public ::testing::Test {
 protected:
  static const std::filesystem::path& ConfigDirectory() {
    static testsupport::TempDir* directory = [] {
      auto* made = new testsupport::TempDir;  // Kept for the whole run.
      setenv("XDG_CONFIG_HOME", made->path().c_str(), 1);
      QCoreApplication::setOrganizationName("Mirell");
      QCoreApplication::setApplicationName("Mirell");
      return made;
    }();
    return directory->path();
  }
  void SetUp() override {
    ConfigDirectory();
    QSettings().clear();
  }
  static void Store(const char* key, const QVariant& value) { QSettings().setValue(key, value); }
};

}  // namespace mirell::settings
