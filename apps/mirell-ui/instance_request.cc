#include "instance_request.h"

#include <nlohmann/json.hpp>

namespace mirell::ui {
namespace {

using nlohmann::json;

const char* VerbOf(InstanceRequest::Kind kind) {
  switch (kind) {
    case InstanceRequest::Kind::kShow:
      return "show";
    case InstanceRequest::Kind::kShare:
      return "share";
    case InstanceRequest::Kind::kAdmit:
      return "admit";
    case InstanceRequest::Kind::kDeny:
      return "deny";
  }
  return "show";
}

// The object a line holds, or nullopt: not JSON, not an object, too long.
std::optional<json> ObjectOf(std::string_view line) {
  if (line.size() > kMaxInstanceLine) return std::nullopt;
  json value = json::parse(line, nullptr, false);
  if (value.is_discarded() || !value.is_object()) return std::nullopt;
  return value;
}

}  // namespace

InstanceRequest RequestOf(const CommandLine& line) {
  InstanceRequest request;
  if (line.admit) {
    request.kind = InstanceRequest::Kind::kAdmit;
    request.peer = *line.admit;
  } else if (line.deny) {
    request.kind = InstanceRequest::Kind::kDeny;
    request.peer = *line.deny;
  } else if (line.share.wants_share()) {
    request.kind = InstanceRequest::Kind::kShare;
    request.share = line.share;
  }
  return request;
}

std::string EncodeRequest(const InstanceRequest& request) {
  json value{{"do", VerbOf(request.kind)}};
  switch (request.kind) {
    case InstanceRequest::Kind::kShow:
      break;
    case InstanceRequest::Kind::kShare:
      if (!request.share.window_title.empty()) value["window"] = request.share.window_title;
      if (request.share.monitor) value["monitor"] = *request.share.monitor;
      if (request.share.admit_everyone) value["admit_everyone"] = true;
      if (request.share.is_public) value["public"] = true;
      if (!request.share.allow.empty()) value["allow"] = request.share.allow;
      break;
    case InstanceRequest::Kind::kAdmit:
    case InstanceRequest::Kind::kDeny:
      value["peer"] = request.peer;
      break;
  }
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::optional<InstanceRequest> DecodeRequest(std::string_view line) {
  if (line.empty()) return InstanceRequest{};
  const std::optional<json> value = ObjectOf(line);
  if (!value || !value->contains("do") || !(*value)["do"].is_string()) return std::nullopt;
  const std::string verb = (*value)["do"].get<std::string>();
  InstanceRequest request;
  if (verb == "show") return request;
  if (verb == "admit" || verb == "deny") {
    const auto peer = value->find("peer");
    if (peer == value->end() || !peer->is_string() || peer->get<std::string>().empty()) return std::nullopt;
    request.kind = verb == "admit" ? InstanceRequest::Kind::kAdmit : InstanceRequest::Kind::kDeny;
    request.peer = peer->get<std::string>();
    return request;
  }
  if (verb != "share") return std::nullopt;
  request.kind = InstanceRequest::Kind::kShare;
  if (const auto window = value->find("window"); window != value->end()) {
    if (!window->is_string() || window->get<std::string>().empty()) return std::nullopt;
    request.share.window_title = window->get<std::string>();
  }
  if (const auto monitor = value->find("monitor"); monitor != value->end()) {
    if (!monitor->is_number_unsigned() || monitor->get<std::uint64_t>() > 999) return std::nullopt;
    request.share.monitor = monitor->get<std::uint32_t>();
  }
  if (const auto everyone = value->find("admit_everyone"); everyone != value->end()) {
    if (!everyone->is_boolean()) return std::nullopt;
    request.share.admit_everyone = everyone->get<bool>();
  }
  if (const auto is_public = value->find("public"); is_public != value->end()) {
    if (!is_public->is_boolean()) return std::nullopt;
    request.share.is_public = is_public->get<bool>();
  }
  if (const auto allow = value->find("allow"); allow != value->end()) {
    if (!allow->is_array()) return std::nullopt;
    for (const json& id : *allow) {
      if (!id.is_string()) return std::nullopt;
      request.share.allow.push_back(id.get<std::string>());
    }
  }
  // Exactly one target, as on the command line.
  if (request.share.window_title.empty() == !request.share.monitor.has_value()) return std::nullopt;
  return request;
}

std::string EncodeReply(const InstanceReply& reply) {
  return json{{"ok", reply.ok}, {"text", reply.text}}.dump(-1, ' ', false,
                                                           json::error_handler_t::replace);
}

std::optional<InstanceReply> DecodeReply(std::string_view line) {
  const std::optional<json> value = ObjectOf(line);
  if (!value) return std::nullopt;
  const auto ok = value->find("ok");
  const auto text = value->find("text");
  if (ok == value->end() || !ok->is_boolean() || text == value->end() || !text->is_string()) {
    return std::nullopt;
  }
  return InstanceReply{ok->get<bool>(), text->get<std::string>()};
}

}  // namespace mirell::ui
