// Where this program's executable lies; the stub and the log file are found beside it.
#pragma once

#include <filesystem>

namespace mirell::ui {

// The directory of the running executable; empty when it cannot be read.
std::filesystem::path ExecutableDirectory();

}  // namespace mirell::ui
