// What "mirell-ui --help" prints.
#pragma once

#include <string>

namespace mirell::ui {

// Every option the program reads, grouped as a person looks for them, with their defaults.
std::string UsageText();

}  // namespace mirell::ui
