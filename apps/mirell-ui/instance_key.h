// One process per combination of RTSP port and resolve endpoint. The instance's lock, its show
// request and its log file name all derive from one short key.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace mirell::ui {

// 32-bit FNV-1a over the port's decimal digits, "|", and the endpoint's bytes, as 8 lower-case
// hex digits.
std::string InstanceKey(std::uint16_t port, std::string_view pipe_name);

// "mirell-ui.log" for the instance with the default key, "mirell-ui-<key>.log" for any other.
std::string LogFileName(const std::string& key, const std::string& default_key);

}  // namespace mirell::ui
