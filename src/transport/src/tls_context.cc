#include "tls_context.h"

#include <openssl/x509v3.h>

#include "mirell/base/error.h"

namespace mirell::transport {

boost::asio::ssl::context MakeClientTlsContext() {
  boost::asio::ssl::context context(boost::asio::ssl::context::tls_client);
  context.set_options(boost::asio::ssl::context::default_workarounds |
                      boost::asio::ssl::context::no_sslv2 | boost::asio::ssl::context::no_sslv3 |
                      boost::asio::ssl::context::no_tlsv1 | boost::asio::ssl::context::no_tlsv1_1);
  // The system's store, or the files OpenSSL's environment variables name.
  context.set_default_verify_paths();
  context.set_verify_mode(boost::asio::ssl::verify_peer);
  return context;
}

void PrepareClientTls(SSL* ssl, const std::string& host) {
  // Checked against the certificate's subject alternative names (an IP address or a DNS name).
  X509_VERIFY_PARAM* parameters = SSL_get0_param(ssl);
  X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) == 1) return;
  MIRELL_CHECK(X509_VERIFY_PARAM_set1_host(parameters, host.c_str(), host.size()) == 1,
               "could not require the TLS host name {}", host);
  // Server name indication, for a name only.
  MIRELL_CHECK(SSL_set_tlsext_host_name(ssl, host.c_str()) == 1, "could not name {} for TLS",
               host);
}

}  // namespace mirell::transport
