// The "media" object of "host" and "joined", seen from each side.
#pragma once

#include "json_text.h"
#include "mirell/protocol/stream_media.h"

namespace mirell::protocol {

// As a host writes it: every number, the audio configuration only when set.
Json MediaObjectOf(const StreamMedia& media);

// As the server keeps and passes it on: only the fields the protocol knows, each of its type.
Json KnownMediaFields(const Json& media);

// As a viewer believes it: what a host advertises sizes a viewer's buffers, so a value no encoder
// of ours makes is not believed (0 or empty).
StreamMedia BelievedMedia(const Json& media);

}  // namespace mirell::protocol
