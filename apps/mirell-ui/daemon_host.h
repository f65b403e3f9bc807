// The owner of the local services and the only thing the interface talks to. It has no thread
// and no lock of its own: every call comes from the interface thread, except the callbacks it
// hands to the services, which touch only the registry, the viewing side (which has its own lock)
// and constant configuration.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "daemon_config.h"
#include "mirell/base/thread_checker.h"
#include "mirell/resolve/resolve_service.h"
#include "mirell/rtsp/rtsp_server.h"
#include "mirell/session/sharing.h"
#include "mirell/session/viewing.h"
#include "mirell/signal/signal_server.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/transport/peer_config.h"
#include "mirell/vrchat/stub_installer.h"
#include "mirell/vrchat/vrchat_identity.h"
#include "signal_server_check.h"

namespace mirell::ui {

class DaemonHost {
 public:
  explicit DaemonHost(DaemonConfig config);
  ~DaemonHost();
  DaemonHost(const DaemonHost&) = delete;
  DaemonHost& operator=(const DaemonHost&) = delete;

  // Starts the RTSP server, then the resolve service, then (unless told not to) puts the stub in
  // place of VRChat's resolver. Throws when the RTSP server or the resolve service cannot listen;
  // a stub that cannot go in is logged and the program runs on without it. A second call does
  // nothing.
  void Start();
  // Stops everything in order, VRChat's resolver put back last; does nothing when not started.
  // Never throws: a resolver that cannot be put back is logged at error and left to the next
  // start (its marker stays).
  void Stop();

  // How often Poll runs: the process's one heartbeat, window or none.
  static constexpr std::chrono::milliseconds kHeartbeat{500};
  // One heartbeat, from the interface thread's timer: reads VRChat's log for the account the
  // watches claim, ends a share whose time is up or whose capture has ended (a closed window),
  // and drops the watches that have ended. The window only shows what it leaves.
  void Poll();
  // Stored, and used by the shares and watches made from now on; those that exist keep what
  // they have.
  void SetIceServers(std::vector<transport::IceServer> servers, std::uint32_t policy);
  // For the next share.
  void SetQuality(const encode::ShareQuality& quality);
  // The stored allowlist, to the share's door with the command line's ids beside it; the
  // start-up copy in config() stays as it was.
  void SetAllowlist(session::Allowlist allowlist);
  // Called on the signal client's thread for a viewer the user must decide about: it must only
  // copy and post.
  void OnViewerPending(std::function<void(session::PendingViewer)> callback);
  // A waiting viewer left before anyone decided; same thread and rule.
  void OnViewerPendingGone(std::function<void(std::string)> callback);

  // The decision for one URL, as the resolve service gets it: a share link makes sure a stream is
  // there for its token (the host's own, or a watch that plays the card at once) and is resolved
  // to that token's loopback RTSP address; anything else is not ours. A link of this program's
  // own signal server is taken at once; a link of another host only once that host has said,
  // within SignalServerCheck's bound, that it is a Mirell signal server, and its watch meets the
  // host there.
  resolve::ResolveResult Resolve(const std::string& url);

  const DaemonConfig& config() const { return config_; }
  streams::StreamRegistry& registry() { return registry_; }
  session::Sharing& sharing() { return sharing_; }
  session::Viewing& viewing() { return viewing_; }
  const SignalServerCheck& signal_servers() const { return signal_servers_; }
  const vrchat::VRChatIdentityWatcher& identity() const { return identity_; }
  // The resolve endpoint as bound; empty when not started.
  std::string resolve_endpoint() const;
  // The port this program serves as the meeting place on; 0 when it is not one, or not started.
  std::uint16_t meeting_port() const;
  // The RTSP server's port; 0 when not started.
  std::uint16_t rtsp_port() const;
  // Whether the stub is in place of VRChat's resolver.
  bool stub_installed() const { return stub_.has_value(); }

 private:
  // Member order is destruction order in reverse: the services end before the registry they use.
  const ThreadChecker owner_thread_;  // The interface thread: Start, Stop, Poll and the setters.
  DaemonConfig config_;
  streams::StreamRegistry registry_;
  session::Sharing sharing_;
  session::Viewing viewing_;
  // Outlives the resolve service, which asks it.
  SignalServerCheck signal_servers_;
  // This computer as the meeting place, when it is one.
  std::optional<signal::SignalServer> meeting_;
  std::optional<rtsp::RtspServer> rtsp_;
  std::optional<resolve::ResolveService> resolve_;
  std::optional<vrchat::StubInstaller> stub_;
  vrchat::VRChatIdentityWatcher identity_;  // VRChat's own log folder.
  // Read by the resolver on the resolve service's thread.
  std::atomic<std::uint16_t> rtsp_bound_port_{0};
  bool started_ = false;

  // The stored list with the command line's ids, which go by their claim.
  session::Allowlist WithCommandLineIds(session::Allowlist allowlist) const;
  // Serves the signal protocol on config_.local_signal_port; throws Error with the reason.
  void StartMeetingPlace();
  // Hands a newly seen VRChat account to the watches, for the joins made from now on.
  void RefreshIdentity();
};

}  // namespace mirell::ui
