// A certificate authority of the tests' own, and server certificates it signed, made with the
// openssl command in a temporary directory: "localhost.pem"/".key" for localhost and 127.0.0.1,
// "other.pem"/".key" for other.example. A client trusts the CA through SSL_CERT_FILE.
#pragma once

#include <string>

#include "mirell/testsupport/subprocess.h"

namespace mirell::testsupport {

class TestCertificates {
 public:
  // Throws std::runtime_error when openssl fails.
  TestCertificates();
  std::string Path(const std::string& name) const { return (dir_.path() / name).string(); }

 private:
  TempDir dir_;
};

}  // namespace mirell::testsupport
