#include "operation/link_rules.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <memory>

namespace tolm::operation {
namespace {

constexpr char kSchemeEnd[] = "://";
constexpr char kAuthorityEnd[] = "/?#";
constexpr char kHttp[] = "http";
constexpr char kHttps[] = "https";

bool IsLetterOrDigit(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 && static_cast<unsigned char>(c) < 0x80;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool IsScheme(const std::string& text) {
  return !text.empty() && std::isalpha(static_cast<unsigned char>(text.front())) != 0 &&
         std::all_of(text.begin(), text.end(),
                     [](char c) { return IsLetterOrDigit(c) || c == '+' || c == '-' || c == '.'; });
}

std::uint16_t UsualPort(const std::string& scheme) {
  constexpr std::uint16_t kHttpPort = 80;
  constexpr std::uint16_t kHttpsPort = 443;
  return scheme == kHttp ? kHttpPort : scheme == kHttps ? kHttpsPort : std::uint16_t{0};
}

bool IsBracketed(const std::string& host) {
  in6_addr ignored;
  return host.size() > 2 && host.front() == '[' && host.back() == ']' &&
         inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &ignored) == 1;
}

bool IsHost(const std::string& host) {
  return IsBracketed(host) || (!host.empty() && std::all_of(host.begin(), host.end(), [](char c) {
           return IsLetterOrDigit(c) || c == '.' || c == '-' || c == '_';
         }));
}

std::optional<std::uint16_t> ParsePort(const std::string& text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size() || port == 0) {
    return std::nullopt;
  }
  return port;
}

// False when what stands there is no host with or without a port.
bool ParseHostAndPort(const std::string& text, Url& url) {
  const std::size_t colon =
      text.find(':', text.rfind(']') == std::string::npos ? 0 : text.rfind(']'));
  url.host = Lower(text.substr(0, colon));
  url.port = UsualPort(url.scheme);
  if (colon != std::string::npos && colon + 1 < text.size()) {
    const std::optional<std::uint16_t> port = ParsePort(text.substr(colon + 1));
    url.port = port.value_or(0);
    return port && IsHost(url.host);
  }
  return IsHost(url.host);
}

// RFC 3986, 5.2.4, for an absolute path.
std::string WithoutDots(const std::string& path) {
  std::string out;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at + 1), path.size());
    const std::string segment = path.substr(at, end - at);
    const bool is_last = end == path.size();
    if (segment == "/..") {
      out.erase(out.empty() ? 0 : out.rfind('/'));
      out += is_last ? "/" : "";
    } else if (segment == "/.") {
      out += is_last ? "/" : "";
    } else {
      out += segment;
    }
    at = end;
  }
  return out;
}

// The path, and from "?" on the query.
struct PathAndQuery {
  std::string path;
  std::string query;
};

PathAndQuery Split(const std::string& rest) {
  const std::string text = rest.substr(0, rest.find('#'));
  const std::size_t query = std::min(text.find('?'), text.size());
  return {text.substr(0, query), text.substr(query)};
}

std::string ResolveRest(const std::string& base, const std::string& reference) {
  const PathAndQuery from = Split(base);
  const PathAndQuery to = Split(reference);
  if (to.path.empty()) {
    return from.path + (to.query.empty() ? from.query : to.query);
  }
  const std::string directory =
      from.path.empty() ? "/" : from.path.substr(0, from.path.rfind('/') + 1);
  return WithoutDots(to.path.front() == '/' ? to.path : directory + to.path) + to.query;
}

using Addresses = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

Addresses AddressesOf(const std::string& host) {
  const std::string name = IsBracketed(host) ? host.substr(1, host.size() - 2) : host;
  addrinfo wanted{};
  wanted.ai_family = AF_UNSPEC;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(name.c_str(), nullptr, &wanted, &found) != 0) {
    found = nullptr;
  }
  return {found, [](addrinfo* list) {
            if (list != nullptr) {
              freeaddrinfo(list);
            }
          }};
}

std::string Numeric(const addrinfo& address) {
  std::array<char, NI_MAXHOST> text{};
  getnameinfo(address.ai_addr, address.ai_addrlen, text.data(), text.size(), nullptr, 0,
              NI_NUMERICHOST);
  return text.data();
}

// "the loopback address 127.0.0.1", or empty.
std::string LocalAddressOf(const std::string& host) {
  const Addresses addresses = AddressesOf(host);
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    const std::string kind = KindOfLocalAddress(*address->ai_addr);
    if (!kind.empty()) {
      return "the " + kind + " address " + Numeric(*address);
    }
  }
  return "";
}

std::string KindOfIpv4(const unsigned char* bytes) {
  if (bytes[0] == 127 || bytes[0] == 0) {
    return "loopback";
  }
  return bytes[0] == 169 && bytes[1] == 254 ? "link-local" : "";
}

}  // namespace

std::optional<Url> ParseUrl(const std::string& text) {
  const std::size_t colon = text.find(kSchemeEnd);
  if (colon == std::string::npos || !IsScheme(text.substr(0, colon))) {
    return std::nullopt;
  }
  Url url;
  url.scheme = Lower(text.substr(0, colon));
  const std::size_t begin = colon + std::strlen(kSchemeEnd);
  const std::size_t end = std::min(text.find_first_of(kAuthorityEnd, begin), text.size());
  const std::string authority = text.substr(begin, end - begin);
  const std::size_t at = authority.rfind('@');
  const bool has_user = at != std::string::npos;
  url.user_info = has_user ? authority.substr(0, at) : "";
  url.rest = text.substr(end);
  if (!ParseHostAndPort(has_user ? authority.substr(at + 1) : authority, url)) {
    return std::nullopt;
  }
  return url;
}

bool IsBaseAddress(const std::string& text) {
  const std::optional<Url> url = ParseUrl(text);
  return url && (url->scheme == kHttp || url->scheme == kHttps) &&
         std::none_of(text.begin(), text.end(), [](unsigned char c) {
           return c <= ' ' || c == 0x7f || c == '?' || c == '#';
         });
}

std::string TextOf(const Url& url) {
  const bool is_usual = url.port == UsualPort(url.scheme);
  return url.scheme + kSchemeEnd + url.host + (is_usual ? "" : ':' + std::to_string(url.port)) +
         url.rest;
}

std::string OriginOf(const Url& url) {
  return url.scheme + kSchemeEnd + url.host + ':' + std::to_string(url.port);
}

std::optional<Url> Resolve(const Url& base, const std::string& reference) {
  const std::size_t colon = reference.find(':');
  if (colon < reference.find_first_of(kAuthorityEnd) && IsScheme(reference.substr(0, colon))) {
    std::optional<Url> url = ParseUrl(reference);
    if (url) {
      url->rest = ResolveRest("", url->rest.empty() ? "/" : url->rest);
    }
    return url;
  }
  if (reference.compare(0, 2, "//") == 0) {
    return Resolve(base, base.scheme + ':' + reference);
  }
  Url url = base;
  url.user_info.clear();
  url.rest = ResolveRest(base.rest, reference);
  return url;
}

std::string WithoutUserInfo(const std::string& text) {
  std::string out = text;
  for (std::size_t begin = out.find("//"); begin != std::string::npos;
       begin = out.find("//", begin)) {
    begin += 2;
    const std::size_t end = std::min(out.find_first_of("/?# \t\"'", begin), out.size());
    const std::size_t at = out.rfind('@', end);
    if (at != std::string::npos && at >= begin && at < end) {
      out.erase(begin, at + 1 - begin);
    }
  }
  return out;
}

std::string AddressWithoutUserInfo(const std::string& address) {
  constexpr char kAuthorityBegin[] = "//";
  const std::size_t slashes = address.find(kAuthorityBegin);
  if (slashes == std::string::npos) {
    return address;
  }
  const std::size_t begin = slashes + std::strlen(kAuthorityBegin);
  const std::size_t end = address.find_first_of(kAuthorityEnd, begin);
  const std::size_t at = address.rfind('@', end);
  return at == std::string::npos || at < begin ? address
                                               : address.substr(0, begin) + address.substr(at + 1);
}

std::string KindOfLocalAddress(const sockaddr& address) {
  if (address.sa_family == AF_INET) {
    sockaddr_in ipv4;
    std::memcpy(&ipv4, &address, sizeof ipv4);
    std::array<unsigned char, sizeof ipv4.sin_addr> bytes;
    std::memcpy(bytes.data(), &ipv4.sin_addr, bytes.size());
    return KindOfIpv4(bytes.data());
  }
  if (address.sa_family != AF_INET6) {
    return "";
  }
  sockaddr_in6 ipv6;
  std::memcpy(&ipv6, &address, sizeof ipv6);
  const in6_addr& value = ipv6.sin6_addr;
  if (IN6_IS_ADDR_LOOPBACK(&value) || IN6_IS_ADDR_UNSPECIFIED(&value)) {
    return "loopback";
  }
  constexpr std::size_t kIpv4At = 12;
  if (IN6_IS_ADDR_V4MAPPED(&value) || IN6_IS_ADDR_V4COMPAT(&value)) {
    return KindOfIpv4(value.s6_addr + kIpv4At);
  }
  return IN6_IS_ADDR_LINKLOCAL(&value) ? "link-local" : "";
}

std::string LinkRefusal(const std::string& what, const std::optional<Url>& url,
                        const std::optional<Url>& server, const std::optional<Url>& before) {
  if (!url || (url->scheme != kHttp && url->scheme != kHttps)) {
    return what + " is no address of http or https";
  }
  if (before && before->scheme == kHttps && url->scheme != kHttps) {
    return what + " leads from https to http";
  }
  if (server && url->host == server->host && url->port == server->port) {
    return "";
  }
  const std::string local = LocalAddressOf(url->host);
  return local.empty() ? "" : what + " leads to " + local;
}

}  // namespace tolm::operation
