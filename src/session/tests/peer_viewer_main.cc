// A viewer in a process of its own for the two-process peer media test: an answering link with a
// peer receiver in front of a pair of buses. It takes the offer from a file, writes its answer to
// another, and records every unit that comes out of the buses in OUT_DIR: "units.txt" ("v <pts>
// <key> <digest of the NAL units>" and "a <pts> <digest>", one line each, flushed), the video in
// "video.h264" and how many audio units came before the first video unit in "before_video.txt".
// It runs until it is killed.
//   peer_viewer OFFER_FILE ANSWER_FILE OUT_DIR
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "mirell/session/peer_receiver.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/transport/peer_link.h"
#include "peer_link_testing.h"
#include "peer_media_fixture.h"

int main(int argc, char** argv) {
  using namespace mirell;
  if (argc != 4) {
    std::fprintf(stderr, "usage: peer_viewer OFFER_FILE ANSWER_FILE OUT_DIR\n");
    return 2;
  }
  const std::filesystem::path offer_file = argv[1];
  const std::filesystem::path answer_file = argv[2];
  const std::filesystem::path out = argv[3];

  // A sanitized build runs several times slower; see the link's tests.
  if constexpr (testsupport::kSanitizedBuild) transport::SetReceiveLatency(1000);
  streams::FrameBus frames;
  streams::AudioBus audio;
  auto video_reader = frames.Subscribe(1000, 0);
  auto audio_reader = audio.Subscribe(1000, -1);
  auto link = transport::CreateAnswerer(transport::PeerConfig{{}, 1});
  session::PeerReceiver receiver(link.get(), &frames, &audio, 48000);
  receiver.Start();
  link->OnLocalDescription([&](const std::string& sdp) {
    std::filesystem::path partial = answer_file;
    partial += ".partial";
    std::ofstream(partial, std::ios::binary) << sdp;
    std::filesystem::rename(partial, answer_file);
  });
  while (!std::filesystem::exists(offer_file)) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::stringstream offer;
  offer << std::ifstream(offer_file, std::ios::binary).rdbuf();
  link->SetRemoteDescription(offer.str());
  if (link->audio_sample_rate() != 0) receiver.SetAudioClock(link->audio_sample_rate());

  std::ofstream units(out / "units.txt");
  std::ofstream video(out / "video.h264", std::ios::binary);
  std::uint64_t before_video = 0;
  for (;;) {
    while (auto frame = video_reader->Pop(5)) {
      video.write(reinterpret_cast<const char*>(frame->data.data()),
                  static_cast<std::streamsize>(frame->data.size()));
      video.flush();
      units << "v " << frame->pts_100ns << ' ' << (frame->keyframe ? 1 : 0) << ' '
            << session::testing::VideoDigest(frame->data) << std::endl;
    }
    while (auto unit = audio_reader->TryPop()) {
      units << "a " << unit->pts_100ns << ' ' << session::testing::Digest(unit->data) << std::endl;
    }
    if (receiver.audio_units_before_video() != before_video) {
      before_video = receiver.audio_units_before_video();
      std::filesystem::path partial = out / "before_video.partial";
      std::ofstream(partial) << before_video;
      std::filesystem::rename(partial, out / "before_video.txt");
    }
  }
}
