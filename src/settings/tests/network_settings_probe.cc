// The network settings as mirell-ui stores and reads them, from the command line, so that tests
// can run the store in environments of their own (a private secret store, none at all, another
// account). "save STUN CUSTOM TURN_URL TURN_USER PASSWORD" or "load", which prints one field a
// line, each between brackets so that blanks show.
#include <QCoreApplication>
#include <cstdio>
#include <cstring>

#include "mirell/settings/network_settings.h"

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  QCoreApplication::setOrganizationName("Mirell");
  QCoreApplication::setApplicationName("Mirell");
  using mirell::settings::NetworkSettings;
  if (argc == 7 && std::strcmp(argv[1], "save") == 0) {
    mirell::settings::SaveNetworkSettings(NetworkSettings{"", argv[2], argv[3], argv[4], argv[5], argv[6]});
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "load") == 0) {
    const NetworkSettings loaded = mirell::settings::LoadNetworkSettings();
    for (const std::string* field : {&loaded.stun, &loaded.custom_stun, &loaded.turn_url,
                                     &loaded.turn_user, &loaded.turn_credential}) {
      std::printf("[%s]\n", field->c_str());
    }
    return 0;
  }
  std::fprintf(stderr, "usage: %s save STUN CUSTOM TURN_URL TURN_USER PASSWORD | load\n", argv[0]);
  return 2;
}
