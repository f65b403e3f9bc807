// The one place where this program's TLS client settings are made: every HTTPS or WSS connection
// verifies the server's certificate chain against the system's CA store and the server's host
// name. OpenSSL's SSL_CERT_FILE and SSL_CERT_DIR, when set, replace the store (tests use them to
// trust a CA of their own).
#pragma once

#include <openssl/ssl.h>

#include <boost/asio/ssl/context.hpp>
#include <string>

namespace mirell::transport {

// A context for client connections that verify their peer.
boost::asio::ssl::context MakeClientTlsContext();

// Names `host` for SNI and makes the handshake fail unless the certificate is for `host`. Call
// on each connection's SSL object before its handshake. Throws Error when OpenSSL refuses.
void PrepareClientTls(SSL* ssl, const std::string& host);

}  // namespace mirell::transport
