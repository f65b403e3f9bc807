// Names for the program's threads, so that a profiler or `top -H` tells them apart. Without one a
// thread carries the name of the thread that started it: a viewer's sender, started from a peer
// link's callback, showed up as the link's own thread.
#pragma once

#include <string_view>

namespace mirell {

// Names the calling thread; the system keeps the first 15 characters.
void NameThisThread(std::string_view name);

}  // namespace mirell
