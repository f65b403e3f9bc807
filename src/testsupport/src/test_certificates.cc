#include "mirell/testsupport/test_certificates.h"

#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace mirell::testsupport {
namespace {

void Run(const std::vector<std::string>& argv) {
  const ProcessResult result = RunProcess(argv);
  if (result.exit_code != 0) throw std::runtime_error("openssl failed: " + result.err);
}

}  // namespace

TestCertificates::TestCertificates() {
  const auto at = [this](const std::string& name) { return Path(name); };
  Run({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
       "/CN=Mirell Test CA", "-keyout", at("ca.key"), "-out", at("ca.pem")});
  for (const auto& [name, san] :
       {std::pair<std::string, std::string>{"localhost", "DNS:localhost,IP:127.0.0.1"},
        {"other", "DNS:other.example"}}) {
    Run({"openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=" + name, "-keyout",
         at(name + ".key"), "-out", at(name + ".csr")});
    std::ofstream(at(name + ".ext")) << "subjectAltName=" << san << "\n";
    Run({"openssl", "x509", "-req", "-in", at(name + ".csr"), "-CA", at("ca.pem"), "-CAkey",
         at("ca.key"), "-CAcreateserial", "-days", "2", "-extfile", at(name + ".ext"), "-out",
         at(name + ".pem")});
  }
}

}  // namespace mirell::testsupport
