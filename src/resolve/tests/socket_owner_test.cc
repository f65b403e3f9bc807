// Who is on the other end of a loopback connection, and the resolve endpoint's refusal of other
// users, with real sockets and a real second user.
#include "mirell/resolve/socket_owner.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>


#include "mirell/base/logging.h"
#include "mirell/resolve/resolve_service.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"

namespace mirell::resolve {
namespace {

// A listener and one accepted connection, with both addresses as the server sees them.
class LoopbackPair {
 public:
  LoopbackPair() {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    server_.sin_family = AF_INET;
    server_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(server_);
    EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&server_), sizeof(server_)), 0);
    EXPECT_EQ(listen(listener_, 4), 0);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&server_), &size);
    client_ = std::make_unique<testsupport::TcpClient>(ntohs(server_.sin_port));
    size = sizeof(peer_);
    accepted_ = accept(listener_, reinterpret_cast<sockaddr*>(&peer_), &size);
  }
  ~LoopbackPair() {
    close(accepted_);
    close(listener_);
  }
  const sockaddr_in& server() const { return server_; }
  const sockaddr_in& peer() const { return peer_; }

 private:
  int listener_ = -1;
  int accepted_ = -1;
  sockaddr_in server_{};
  sockaddr_in peer_{};
  std::unique_ptr<testsupport::TcpClient> client_;
};

TEST(SocketOwner, SocketDiagFindsOurOwnUid) {
  LoopbackPair pair;
  const auto uid = PeerUidFromSocketDiag(pair.peer(), pair.server());
  ASSERT_TRUE(uid.has_value());
  EXPECT_EQ(*uid, geteuid());
}

TEST(SocketOwner, ProcNetTcpFindsOurOwnUid) {
  LoopbackPair pair;
  const auto uid = PeerUidFromProcNetTcp(testsupport::ReadFileText("/proc/net/tcp"), pair.peer(),
                                         pair.server());
  ASSERT_TRUE(uid.has_value());
  EXPECT_EQ(*uid, geteuid());
}

TEST(SocketOwner, TheServersOwnAcceptedSideIsNotTakenForThePeer) {
  LoopbackPair pair;
  // The table has two rows for the connection; swapping the roles must find the other one, and
  // a port nobody uses finds nothing.
  sockaddr_in nobody = pair.peer();
  nobody.sin_port = htons(static_cast<std::uint16_t>(ntohs(nobody.sin_port) ^ 0x5555));
  const std::string table = testsupport::ReadFileText("/proc/net/tcp");
  EXPECT_FALSE(PeerUidFromProcNetTcp(table, nobody, pair.server()).has_value());
  EXPECT_FALSE(PeerUidFromSocketDiag(nobody, pair.server()).has_value());
}

TEST(SocketOwner, ReadsTheUidColumnOfAHandWrittenTable) {
  const std::string table =
      "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
      "   0: 0100007F:2163 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1 1\n"
      "   1: 0100007F:D431 0100007F:2163 01 00000000:00000000 00:00000000 00000000  1234        0 2 1\n"
      "   2: 0100007F:2163 0100007F:D431 01 00000000:00000000 00:00000000 00000000     0        0 3 1\n";
  sockaddr_in client{};
  client.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  client.sin_port = htons(0xD431);
  sockaddr_in server{};
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  server.sin_port = htons(0x2163);
  EXPECT_EQ(PeerUidFromProcNetTcp(table, client, server), std::optional<uid_t>(1234));
  EXPECT_FALSE(PeerUidFromProcNetTcp("heading only\n", client, server).has_value());
}

// Runs in a forked child as the user nobody: connects, sends one request and reports on `report`
// what came back. Only async-signal-safe calls, since the parent has threads.
[[noreturn]] void AskAsNobody(std::uint16_t port, int report) {
  if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
      setresuid(65534, 65534, 65534) != 0) {
    _exit(2);
  }
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) _exit(3);
  static const char kRequest[] = "RESOLVE https://example.com/\n";
  if (send(fd, kRequest, sizeof(kRequest) - 1, MSG_NOSIGNAL) < 0) _exit(4);
  char buffer[256];
  for (;;) {
    const auto count = recv(fd, buffer, sizeof(buffer), 0);
    if (count <= 0) break;
    if (write(report, buffer, static_cast<std::size_t>(count)) < 0) _exit(5);
  }
  _exit(geteuid() == 65534 ? 0 : 6);
}

TEST(ResolveEndpointAccess, ClientOfAnotherUserIsRefusedAndOursIsServed) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root to run a client as the user nobody";
  }
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  ResolveService service("127.0.0.1:0", [](const std::string&) { return ResolveResult{}; });
  service.Start();
  const std::uint16_t port = testsupport::EndpointPort(service.endpoint());

  int report[2];
  ASSERT_EQ(pipe(report), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) AskAsNobody(port, report[1]);
  close(report[1]);
  std::string answer;
  char buffer[256];
  for (ssize_t count; (count = read(report[0], buffer, sizeof(buffer))) > 0;) {
    answer.append(buffer, static_cast<std::size_t>(count));
  }
  close(report[0]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0) << "the child could not become nobody or connect";
  EXPECT_EQ(answer, "");
  EXPECT_NE(testsupport::ReadFileText(dir.path() / "log").find("refused a client of user 65534"),
            std::string::npos);
  EXPECT_EQ(service.requests(), 0u);

  EXPECT_EQ(testsupport::ExchangeOnce(port, "RESOLVE mine\n"),
            "PASS\n");
  EXPECT_EQ(service.requests(), 1u);
}

}  // namespace
}  // namespace mirell::resolve
