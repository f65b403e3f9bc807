#include "mirell/settings/network_settings.h"

#include <QSettings>
#include <QString>

#include "mirell/base/logging.h"
#include "mirell/transport/stun_choices.h"

namespace mirell::settings {
namespace {

constexpr const char* kCustom = "custom";

std::string ReadText(const QSettings& stored, const char* key) {
  return stored.value(key).toString().toStdString();
}

}  // namespace

NetworkSettings LoadNetworkSettings() {
  const QSettings stored;
  NetworkSettings settings;
  settings.meeting = ReadText(stored, "network/meeting");
  const std::string stun = stored.value("network/stun", "cloudflare").toString().toStdString();
  if (stun == kCustom || transport::FindStunChoice(stun)) {
    settings.stun = stun;
  } else {
    LOG_WARN("unknown STUN choice '{}', using the default", stun);
    settings.stun = "cloudflare";
  }
  settings.custom_stun = ReadText(stored, "network/customStun");
  settings.turn_url = ReadText(stored, "network/turnUrl");
  settings.turn_user = ReadText(stored, "network/turnUser");
  settings.turn_credential = UnprotectCredential(stored.value("network/turnCredential").toByteArray());
  return settings;
}

void SaveNetworkSettings(const NetworkSettings& settings) {
  QSettings stored;
  stored.setValue("network/meeting", QString::fromStdString(settings.meeting));
  stored.setValue("network/stun", QString::fromStdString(settings.stun));
  stored.setValue("network/customStun", QString::fromStdString(settings.custom_stun));
  stored.setValue("network/turnUrl", QString::fromStdString(settings.turn_url));
  stored.setValue("network/turnUser", QString::fromStdString(settings.turn_user));
  stored.setValue("network/turnCredential", ProtectCredential(settings.turn_credential));
}

std::vector<transport::IceServer> BuildIceServers(const NetworkSettings& settings) {
  std::vector<transport::IceServer> servers;
  if (settings.stun == kCustom) {
    if (!settings.custom_stun.empty()) servers.push_back({settings.custom_stun, "", ""});
  } else {
    servers = transport::IceServersForChoice(settings.stun);
  }
  if (!settings.turn_url.empty()) {
    servers.push_back({settings.turn_url, settings.turn_user, settings.turn_credential});
  }
  return servers;
}

}  // namespace mirell::settings
