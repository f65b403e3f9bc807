// What a later start asks of the running instance with the same key, and its answer: show the
// window, share what the command line names, or decide about a waiting viewer. One line of JSON
// each way over the instance's local socket (see single_instance.h).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "options.h"

namespace mirell::ui {

struct InstanceRequest {
  enum class Kind { kShow, kShare, kAdmit, kDeny };
  Kind kind = Kind::kShow;
  ShareOptions share;  // kShare: the target and admission options, as the command line gave them.
  std::string peer;    // kAdmit, kDeny: the waiting viewer's connection id.
};

struct InstanceReply {
  bool ok = false;
  std::string text;  // The share's link, or what was done; the reason when not ok.
};

// What the command line asks of a running instance: a share, a decision, else to show itself.
InstanceRequest RequestOf(const CommandLine& line);

// One line each, without its newline. An empty line, as older starts send, is a show request.
std::string EncodeRequest(const InstanceRequest& request);
std::optional<InstanceRequest> DecodeRequest(std::string_view line);
std::string EncodeReply(const InstanceReply& reply);
std::optional<InstanceReply> DecodeReply(std::string_view line);

// Requests and replies longer than this are refused.
inline constexpr std::size_t kMaxInstanceLine = 4096;

}  // namespace mirell::ui
