#include "mirell/testsupport/https_test_server.h"

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace mirell::testsupport {

HttpsTestServer::HttpsTestServer(const TestCertificates& certificates, const std::string& name) {
  std::filesystem::create_directory(dir_.path() / "root");
  const std::filesystem::path port_file = dir_.path() / "port";
  process_ = std::make_unique<ChildProcess>(std::vector<std::string>{
      "python3", MIRELL_HTTPS_TEST_SERVER, "--cert", certificates.Path(name + ".pem"), "--key",
      certificates.Path(name + ".key"), "--root", (dir_.path() / "root").string(), "--port-file",
      port_file.string()});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string text = ReadFileText(port_file);
    if (!text.empty()) {
      port_ = static_cast<std::uint16_t>(std::stoi(text));
      return;
    }
    if (!process_->Running()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  throw std::runtime_error("the HTTPS test server did not start");
}

void HttpsTestServer::Put(const std::string& name, const std::string& bytes) const {
  std::ofstream(dir_.path() / "root" / name, std::ios::binary) << bytes;
}

std::string HttpsTestServer::Url(const std::string& path, const std::string& host) const {
  return "https://" + host + ":" + std::to_string(port_) + path;
}

HttpsTestSite& SharedHttpsTestSite() {
  static HttpsTestSite site;
  return site;
}

}  // namespace mirell::testsupport
