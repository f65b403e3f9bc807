// A viewer link in a process of its own, for tests that need a peer they can kill. It waits for
// an offer in a file, writes its answer to another (by rename, so it appears whole), writes
// "connected" to a third when the link is up, and then stays until it is killed.
//   link_peer OFFER_FILE ANSWER_FILE STATUS_FILE
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "mirell/transport/peer_link.h"

namespace {

void WriteWhole(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::path partial = path;
  partial += ".partial";
  std::ofstream(partial, std::ios::binary) << text;
  std::filesystem::rename(partial, path);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace mirell::transport;
  if (argc != 4) {
    std::fprintf(stderr, "usage: link_peer OFFER_FILE ANSWER_FILE STATUS_FILE\n");
    return 2;
  }
  const std::filesystem::path offer_file = argv[1];
  const std::filesystem::path answer_file = argv[2];
  const std::filesystem::path status_file = argv[3];
  auto link = CreateAnswerer(PeerConfig{{}, 1});
  link->OnLocalDescription([&](const std::string& sdp) { WriteWhole(answer_file, sdp); });
  link->OnState([&](PeerState state) {
    if (state == PeerState::kConnected) WriteWhole(status_file, "connected");
  });
  while (!std::filesystem::exists(offer_file)) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::stringstream offer;
  offer << std::ifstream(offer_file, std::ios::binary).rdbuf();
  link->SetRemoteDescription(offer.str());
  for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
}
