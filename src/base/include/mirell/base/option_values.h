// The values a server's command line takes, checked the same way by every program: each mistake
// is an std::invalid_argument whose text is a sentence for the person who typed it, naming the
// option.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mirell {

// A positive whole number.
std::size_t PositiveCountOption(std::string_view option, std::string_view text);
// ADDRESS:PORT with a port of 0 to 65535; the form only (whether the address is one to listen on
// is found out when listening).
bool IsAddressAndPort(std::string_view text);
// A character of a host name, an IPv4 address or a bracketed IPv6 address, or the colon before a
// port: the only ones an address is let through with into a page or a header.
bool IsUrlHostCharacter(char c);
// rtspt://HOST[:PORT] (or rtsp://), with at most a trailing slash: a relay's address, which is
// written into pages.
bool IsRelayUrl(std::string_view text);
// The first line of the file at `path`: a secret of 16 to 256 characters.
std::string ReadSecretFileOption(std::string_view option, std::string_view path);

}  // namespace mirell
