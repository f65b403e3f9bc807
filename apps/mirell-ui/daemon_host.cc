#include "daemon_host.h"

#include <fmt/format.h>

#include <stdexcept>

#include "mirell/base/logging.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/transport/peer_link.h"
#include "mirell/transport/signal_endpoint.h"
#include "executable_path.h"
#include "share_link.h"

namespace mirell::ui {

namespace {

constexpr std::chrono::milliseconds kSignalServerBound{1500};

session::Sharing::Config SharingConfigOf(const DaemonConfig& config) {
  session::Sharing::Config sharing;
  sharing.quality = config.quality;
  sharing.prime_ms = config.prime_ms;
  sharing.signal_url = config.signal_url;
  sharing.ice_servers = config.ice_servers;
  sharing.ice_policy = config.ice_policy;
  sharing.share_prefix = config.share_prefix;
  sharing.lifetime_minutes = config.share_lifetime_minutes;
  return sharing;
}

session::Viewing::Config ViewingConfigOf(const DaemonConfig& config) {
  session::Viewing::Config viewing;
  viewing.signal_url = config.signal_url;
  viewing.ice_servers = config.ice_servers;
  viewing.ice_policy = config.ice_policy;
  viewing.prime_ms = config.prime_ms;
  return viewing;
}

}  // namespace

DaemonHost::DaemonHost(DaemonConfig config)
    : config_(std::move(config)),
      sharing_(registry_, SharingConfigOf(config_)),
      viewing_(registry_, ViewingConfigOf(config_)),
      signal_servers_([](const std::string& signal_url) {
        // Each phase gets the whole bound: the caller stops waiting at the bound anyway.
        return transport::AnswersAsSignalEndpoint(signal_url, {kSignalServerBound, 4096});
      }, {kSignalServerBound}) {
  // Nobody gets in unasked.
  sharing_.SetAdmissionRequired(true);
  sharing_.SetAllowlist(WithCommandLineIds(config_.allowlist));
  viewing_.SetIdentityKey(config_.identity_key);
}

session::Allowlist DaemonHost::WithCommandLineIds(session::Allowlist allowlist) const {
  for (const std::string& user_id : config_.allow_by_claim) allowlist[user_id].by_claim_only = true;
  return allowlist;
}

DaemonHost::~DaemonHost() { Stop(); }

void DaemonHost::Start() {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  if (started_) return;
  // Before anything can resolve, so that a link resolved in the first moments carries the account.
  RefreshIdentity();
  // Set first, so that Stop cleans up after a start that fails half-way.
  started_ = true;
  if (config_.local_signal_port != 0) StartMeetingPlace();
  // The WebRTC stack's set-up and certificate now rather than in the first resolve, which must
  // answer at once, or in the first viewer's connection.
  transport::InitialiseTransportLogging();
  transport::PrepareLinks();
  rtsp_.emplace([this](const std::string& path) {
    return registry_.Find(rtsp::TokenFromPath(path));
  });
  rtsp_->Start(config_.rtsp_port);
  // The port actually bound ("--rtsp-port 0" asks for any free one) is what players must open.
  rtsp_bound_port_.store(rtsp_->port());
  resolve_.emplace(config_.pipe_name, [this](const std::string& url) { return Resolve(url); });
  resolve_->Start();
  if (!config_.install_stub) return;

  vrchat::StubInstallerConfig stub_config;
  stub_config.stub_source = ExecutableDirectory() / vrchat::kStubFileName;
  stub_config.watchdog_interval = std::chrono::milliseconds(1000);
  // The endpoint actually bound, so that the stub asks where we listen.
  stub_config.pipe_name = resolve_->endpoint();
  stub_config.stub_logging = true;
  try {
    stub_.emplace(stub_config);
    stub_->RecoverFromPreviousRun();
    stub_->Install();
    stub_->StartWatchdog();
  } catch (const std::exception& error) {
    LOG_ERROR("stub install failed: {}", error.what());
    stub_.reset();
  }
}

void DaemonHost::Stop() {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  if (!started_) return;
  started_ = false;
  sharing_.Stop();
  viewing_.Stop();
  if (rtsp_) {
    rtsp_->Stop();
    rtsp_.reset();
  }
  if (resolve_) {
    resolve_->Stop();
    resolve_.reset();
  }
  // After the share, whose host said goodbye through it.
  if (meeting_) {
    meeting_->Stop();
    meeting_.reset();
  }
  // The installer puts VRChat's resolver back as it goes; a failure there is logged and left,
  // with its marker, to the next start.
  stub_.reset();
}

void DaemonHost::StartMeetingPlace() {
  signal::ServerConfig server;
  // Every interface: friends on the network, or through a forwarded port, meet here.
  server.listen = fmt::format("0.0.0.0:{}", config_.local_signal_port);
  meeting_.emplace(server);
  try {
    meeting_->Start();
  } catch (const std::exception& error) {
    meeting_.reset();
    // The check's own words are for the log; the person gets the reason.
    std::string reason = error.what();
    if (const auto dash = reason.find(" - "); dash != std::string::npos) reason.erase(0, dash + 3);
    throw std::runtime_error(
        fmt::format("could not be the meeting place on port {} ({}); give another with --signal "
                    "local:PORT, or choose a signal server",
                    config_.local_signal_port, reason));
  }
  LOG_INFO("meeting place: this computer, port {}, links {}", meeting_->port(), config_.share_prefix);
}

std::uint16_t DaemonHost::meeting_port() const { return meeting_ ? meeting_->port() : 0; }

resolve::ResolveResult DaemonHost::Resolve(const std::string& url) {
  // Without a meeting place of its own, every link is another server's.
  std::string token =
      config_.share_prefix.empty() ? std::string() : ShareTokenFromUrl(url, config_.share_prefix);
  std::string signal_url = config_.signal_url;
  if (token.empty()) {
    std::optional<ShareLink> link = ParseShareLink(url);
    if (!link) return {};
    // A link of this program's own share needs no server's word.
    if (link->token != sharing_.token() && !signal_servers_.IsSignalServer(link->signal_url)) {
      return {};
    }
    token = std::move(link->token);
    signal_url = std::move(link->signal_url);
  }
  // May throw; the resolve service then answers nothing and the stub sees the connection end.
  switch (viewing_.Ensure(token, signal_url)) {
    case session::Viewing::EnsureResult::kReady:
      break;
    case session::Viewing::EnsureResult::kTooMany:
      return {resolve::ResolveStatus::kFailed, {}, "too many share links are playing at once"};
    case session::Viewing::EnsureResult::kFailed:
      return {resolve::ResolveStatus::kFailed, {}, "the link could not be set up (see the log)"};
  }
  return {resolve::ResolveStatus::kResolved,
          fmt::format("rtspt://127.0.0.1:{}/s/{}", rtsp_bound_port_.load(), token), {}};
}

void DaemonHost::RefreshIdentity() {
  if (!identity_.Poll()) return;
  vrchat::VRChatIdentity identity = identity_.Identity();
  viewing_.SetIdentity({std::move(identity.user_id), std::move(identity.display_name), {}});
}

void DaemonHost::Poll() {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  RefreshIdentity();
  sharing_.Poll();
  viewing_.Poll();
  if (sharing_.active() && !sharing_.capture_running()) {
    LOG_INFO("capture target gone, stopped");
    sharing_.Stop();
  }
}

void DaemonHost::SetIceServers(std::vector<transport::IceServer> servers, std::uint32_t policy) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  config_.ice_servers = servers;
  config_.ice_policy = policy;
  sharing_.SetIceServers(servers, policy);
  viewing_.SetIceServers(std::move(servers), policy);
}

void DaemonHost::SetQuality(const encode::ShareQuality& quality) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  config_.quality = quality;
  sharing_.SetQuality(quality);
}

void DaemonHost::SetAllowlist(session::Allowlist allowlist) {
  MIRELL_DCHECK_OWNER_THREAD(owner_thread_);
  sharing_.SetAllowlist(WithCommandLineIds(std::move(allowlist)));
}

void DaemonHost::OnViewerPending(std::function<void(session::PendingViewer)> callback) {
  sharing_.OnViewerPending(
      [callback = std::move(callback)](const session::PendingViewer& viewer) { callback(viewer); });
}

void DaemonHost::OnViewerPendingGone(std::function<void(std::string)> callback) {
  sharing_.OnViewerPendingGone(
      [callback = std::move(callback)](const std::string& connection_id) { callback(connection_id); });
}

std::uint16_t DaemonHost::rtsp_port() const { return rtsp_ ? rtsp_->port() : 0; }

std::string DaemonHost::resolve_endpoint() const {
  return resolve_ ? resolve_->endpoint() : std::string();
}

}  // namespace mirell::ui
