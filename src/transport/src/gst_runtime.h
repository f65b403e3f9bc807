// The GStreamer side of the transport's set-up, shared by the peer link's files.
#pragma once

namespace mirell::transport {

// Initialises GStreamer once per process and checks that the elements the link is built from are
// installed; throws std::runtime_error naming what is missing.
void EnsureGstreamer();

}  // namespace mirell::transport
