// Linux: the owner of a loopback TCP socket, from sock_diag or /proc/net/tcp.
#include "mirell/resolve/socket_owner.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace mirell::resolve {
namespace {

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// One "ADDR:PORT" field of /proc/net/tcp: the address is the raw network-order word printed as
// hex in host order, the port is in host order.
bool ParseProcAddress(std::string_view field, std::uint32_t& address, std::uint16_t& port) {
  const auto colon = field.find(':');
  if (colon == std::string_view::npos) return false;
  const auto address_text = field.substr(0, colon);
  const auto port_text = field.substr(colon + 1);
  const auto a = std::from_chars(address_text.data(), address_text.data() + address_text.size(),
                                 address, 16);
  const auto p = std::from_chars(port_text.data(), port_text.data() + port_text.size(), port, 16);
  return a.ec == std::errc{} && a.ptr == address_text.data() + address_text.size() &&
         p.ec == std::errc{} && p.ptr == port_text.data() + port_text.size();
}

bool SameEndpoint(std::uint32_t address, std::uint16_t port, const sockaddr_in& endpoint) {
  return address == endpoint.sin_addr.s_addr && port == ntohs(endpoint.sin_port);
}

}  // namespace

std::optional<uid_t> PeerUidFromProcNetTcp(std::string_view table, const sockaddr_in& client,
                                           const sockaddr_in& server) {
  std::istringstream lines{std::string(table)};
  std::string line;
  std::getline(lines, line);  // The heading.
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits;
    uid_t uid = 0;
    if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid)) {
      continue;
    }
    std::uint32_t local_address = 0, remote_address = 0;
    std::uint16_t local_port = 0, remote_port = 0;
    if (!ParseProcAddress(local, local_address, local_port) ||
        !ParseProcAddress(remote, remote_address, remote_port)) {
      continue;
    }
    // The client's own socket: bound where our peer is, connected to us.
    if (SameEndpoint(local_address, local_port, client) &&
        SameEndpoint(remote_address, remote_port, server)) {
      return uid;
    }
  }
  return std::nullopt;
}

std::optional<uid_t> PeerUidFromSocketDiag(const sockaddr_in& client, const sockaddr_in& server) {
  FileDescriptor netlink(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (netlink.get() < 0) return std::nullopt;
  // The kernel answers at once; the limit only guards against a kernel that never does.
  timeval limit{1, 0};
  setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));

  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } message{};
  message.header.nlmsg_len = sizeof(message);
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST;
  message.request.sdiag_family = AF_INET;
  message.request.sdiag_protocol = IPPROTO_TCP;
  message.request.idiag_states = ~0U;
  // The client's socket, named from its own side.
  message.request.id.idiag_sport = client.sin_port;
  message.request.id.idiag_dport = server.sin_port;
  message.request.id.idiag_src[0] = client.sin_addr.s_addr;
  message.request.id.idiag_dst[0] = server.sin_addr.s_addr;
  message.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  message.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;

  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(netlink.get(), &message, sizeof(message), 0, reinterpret_cast<sockaddr*>(&kernel),
             sizeof(kernel)) < 0) {
    return std::nullopt;
  }
  std::array<char, 8192> answer{};
  const auto received = recv(netlink.get(), answer.data(), answer.size(), 0);
  if (received <= 0) return std::nullopt;
  // The messages are walked by offset and copied out, so no pointer into the byte buffer is ever
  // cast to a more strictly aligned type.
  const auto end = static_cast<std::size_t>(received);
  std::size_t at = 0;
  while (at + sizeof(nlmsghdr) <= end) {
    nlmsghdr header{};
    std::memcpy(&header, answer.data() + at, sizeof(header));
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > end - at) return std::nullopt;
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) return std::nullopt;  // An error or the end.
    if (header.nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) return std::nullopt;
    inet_diag_msg found{};
    std::memcpy(&found, answer.data() + at + NLMSG_HDRLEN, sizeof(found));
    if (found.id.idiag_sport == client.sin_port && found.id.idiag_dport == server.sin_port) {
      return static_cast<uid_t>(found.idiag_uid);
    }
    at += NLMSG_ALIGN(header.nlmsg_len);
  }
  return std::nullopt;
}

std::optional<uid_t> LoopbackPeerUid(const sockaddr_in& client, const sockaddr_in& server) {
  if (auto uid = PeerUidFromSocketDiag(client, server)) return uid;
  std::ifstream file("/proc/net/tcp");
  if (!file) return std::nullopt;
  std::stringstream text;
  text << file.rdbuf();
  return PeerUidFromProcNetTcp(text.str(), client, server);
}

}  // namespace mirell::resolve
