// A host in a process of its own for the two-process viewing tests, built from the pieces a share
// uses: a stream fed in real time by the H.264 + AAC fixture, a host signal client and a share
// session whose decisions the test makes. A keyframe request skips the fixture ahead to its next
// keyframe, as an encoder would make one. Test code only.
//
//   mirell_test_host --signal URL --token TOKEN --secret SECRET --dir DIR [--allow USER_ID]
//                    [--public yes] [--picture WIDTHxHEIGHT@KBPS]
//
// It appends events to DIR/events, one line each: "hosting" on every registration,
// "pending PEER IDENTITY" for a viewer to decide about, "viewers N" when the count changes. It
// reads commands appended to DIR/commands: "approve PEER", "deny PEER", "disconnect PEER", and
// "restart-signal", which replaces the signal client and the session with new ones on the same
// token and secret, as a host whose connection is re-made, and "end", which tells the server that
// the share is over, as a host that stops does ("ended" when done). It runs until it is killed.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "fixture_publisher.h"
#include "mirell/base/logging.h"
#include "mirell/media/aac_rtp.h"
#include "mirell/session/share_session.h"
#include "mirell/streams/media_stream.h"
#include "mirell/transport/peer_link.h"
#include "mirell/transport/signal_client.h"

namespace {

using namespace mirell;

struct Options {
  std::string signal_url;
  std::string token;
  std::string secret;
  std::filesystem::path dir;
  std::string allow;
  bool is_public = false;
  int width = 640, height = 360, video_kbps = 0;  // The fixture's picture (0: x264's default).
};

class Events {
 public:
  explicit Events(const std::filesystem::path& path) : out_(path, std::ios::app) {}
  void Write(const std::string& line) {
    std::lock_guard lock(mutex_);
    out_ << line << std::endl;
  }

 private:
  std::mutex mutex_;
  std::ofstream out_;
};

// One registration: the signal client and the session on it.
struct Door {
  std::unique_ptr<transport::SignalClient> signal;
  std::unique_ptr<session::ShareSession> session;

  ~Door() {
    if (signal) signal->Stop();
    if (session) session->Stop();
  }
};

std::unique_ptr<Door> OpenDoor(const Options& options, streams::MediaStream& stream,
                               rtsp::testing::FixturePublisher& publisher, Events& events) {
  transport::SignalConfig config;
  config.url = options.signal_url;
  config.token = options.token;
  config.secret = options.secret;
  config.is_public = options.is_public;
  protocol::StreamMedia media;
  media.width = static_cast<std::uint32_t>(options.width);
  media.height = static_cast<std::uint32_t>(options.height);
  media.fps = 30;
  media.video_kbps = options.video_kbps > 0 ? static_cast<std::uint32_t>(options.video_kbps) : 2000;
  media.sample_rate = 48000;
  media.channels = 2;
  media.audio_kbps = 128;
  media.audio_config = media::HexEncode(media::MakeAacLcAudioSpecificConfig(48000, 2));
  config.media = media;

  auto door = std::make_unique<Door>();
  door->signal = transport::CreateHostSignalClient(config);
  door->session = std::make_unique<session::ShareSession>(
      door->signal.get(), &stream.frames(), &stream.audio(), transport::PeerConfig{{}, 1},
      transport::OfferMedia{}, 48000);
  if (!options.allow.empty()) door->session->SetAllowlist({{options.allow, {"allowed", {}, true}}});
  door->session->SetShareToken(options.token);
  door->session->SetPublic(options.is_public);
  door->session->SetKeyframeHandler([&publisher] { publisher.RequestKeyframe(); });
  door->session->SetPendingHandler([&events](const session::PendingViewer& viewer) {
    events.Write("pending " + viewer.connection_id + " " + (viewer.identity.empty() ? "-" : viewer.identity));
  });
  door->session->Start();
  door->signal->OnReady([&events] { events.Write("hosting"); });
  door->signal->Start();
  return door;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--signal") options.signal_url = value;
    else if (name == "--token") options.token = value;
    else if (name == "--secret") options.secret = value;
    else if (name == "--dir") options.dir = value;
    else if (name == "--allow") options.allow = value;
    else if (name == "--public") options.is_public = value == "yes";
    else if (name == "--picture") {
      if (std::sscanf(value.c_str(), "%dx%d@%d", &options.width, &options.height, &options.video_kbps) != 3) {
        return false;
      }
    }
    else return false;
  }
  return !options.signal_url.empty() && !options.token.empty() && !options.secret.empty() &&
         !options.dir.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: mirell_test_host --signal URL --token TOKEN --secret SECRET --dir DIR "
                 "[--allow USER_ID] [--public yes] [--picture WIDTHxHEIGHT@KBPS]\n");
    return 2;
  }
  SetLogLevel(LogLevel::kDebug);
  // As the tray application does at start: the WebRTC stack is set up before the first viewer.
  transport::InitialiseTransportLogging();
  transport::PrepareLinks();
  Events events(options.dir / "events");
  auto stream = std::make_shared<streams::MediaStream>("test host", 30, 2000);
  rtsp::testing::FixtureOptions fixture;
  fixture.width = options.width;
  fixture.height = options.height;
  fixture.video_kbps = options.video_kbps;
  if (options.width > 640) fixture.frames = 300;
  rtsp::testing::FixturePublisher publisher(options.dir, stream, fixture);
  stream->SetKeyframeRequester([&publisher] { publisher.RequestKeyframe(); });
  publisher.Start();
  std::unique_ptr<Door> door = OpenDoor(options, *stream, publisher, events);

  std::size_t commands_read = 0;
  std::size_t last_count = 0;
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    door->session->Sweep();
    const std::size_t count = door->session->ViewerCount();
    if (count != last_count) events.Write("viewers " + std::to_string(count));
    last_count = count;

    std::ifstream commands(options.dir / "commands");
    std::string line;
    for (std::size_t index = 0; std::getline(commands, line); ++index) {
      if (index < commands_read) continue;
      ++commands_read;
      std::istringstream words(line);
      std::string verb, peer;
      words >> verb >> peer;
      if (verb == "approve") door->session->Approve(peer);
      else if (verb == "deny") door->session->Deny(peer);
      else if (verb == "disconnect") door->session->Disconnect(peer);
      else if (verb == "end") {
        door->session->Stop();
        door->signal->End();
        events.Write("ended");
      } else if (verb == "restart-signal") {
        door.reset();
        door = OpenDoor(options, *stream, publisher, events);
      }
    }
  }
}
