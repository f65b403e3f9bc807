// Who descends from whom among the processes of this machine.
#pragma once

#include <cstdint>

namespace mirell::capture {

// True when `pid` is `ancestor` or one of its descendants. A process that cannot be read (gone,
// another namespace) ends the walk with false.
bool IsSameOrDescendant(std::uint32_t pid, std::uint32_t ancestor);

}  // namespace mirell::capture
