// What a headless server program does around its work: it may hold a descriptor per connection,
// and it runs until it is told to stop.
#pragma once

namespace mirell {

// Raises the limit on open descriptors to the most this user may have.
void RaiseDescriptorLimit();

// Reserves SIGINT and SIGTERM for WaitForStopSignal and ignores SIGPIPE. Call before any thread
// starts: threads inherit the calling thread's mask, and a stop signal must reach no other.
void ReserveStopSignals();

// Blocks until SIGINT or SIGTERM comes; returns its number.
int WaitForStopSignal();

}  // namespace mirell
