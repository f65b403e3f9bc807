// A real HTTPS server on loopback for the tests of our HTTPS client: Python's http.server behind
// a certificate of TestCertificates. It serves the files of a directory the test fills, any
// status on request, and a path that never answers (see https_test_server.py).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/test_certificates.h"

namespace mirell::testsupport {

class HttpsTestServer {
 public:
  // Serves with the certificate `name` ("localhost" or "other"); throws std::runtime_error when
  // it does not listen within 10 s.
  explicit HttpsTestServer(const TestCertificates& certificates,
                           const std::string& name = "localhost");
  // A file served under /files/NAME.
  void Put(const std::string& name, const std::string& bytes) const;
  // "https://HOST:PORT" + path, e.g. Url("/files/latest").
  std::string Url(const std::string& path, const std::string& host = "127.0.0.1") const;
  std::uint16_t port() const { return port_; }

 private:
  TempDir dir_;
  std::unique_ptr<ChildProcess> process_;
  std::uint16_t port_ = 0;
};

// One authority and one server for a whole test program: made on first use, stopped at exit.
// Clients trust it with SSL_CERT_FILE = certificates.Path("ca.pem").
struct HttpsTestSite {
  TestCertificates certificates;
  HttpsTestServer server{certificates};
};
HttpsTestSite& SharedHttpsTestSite();

}  // namespace mirell::testsupport
