#ifndef TOLM_OPERATION_LINK_RULES_H_
#define TOLM_OPERATION_LINK_RULES_H_

#include <cstdint>
#include <optional>
#include <string>

struct sockaddr;

namespace tolm::operation {

/// An address of the web as RFC 3986 takes it apart, of any scheme that has a host.
struct Url {
  std::string scheme;     ///< In lower case.
  std::string user_info;  ///< As it was written, without the "@"; empty when there is none.
  std::string host;       ///< In lower case; an address of IPv6 in its brackets.
  std::uint16_t port = 0;
  std::string rest;  ///< Path, query and fragment.
};

/// Nothing for what is no such address. A host holds letters, digits, ".", "-" and "_" only: what
/// programs make of other characters differs. The port is the scheme's where none is written, 0
/// when that is not known.
std::optional<Url> ParseUrl(const std::string& text);
/// Without the user info, and without the port where it is the scheme's.
std::string TextOf(const Url& url);
/// Whether it is an address of http or https that a path may be put behind: without query, fragment
/// and blanks.
bool IsBaseAddress(const std::string& text);
/// What a redirect from there to that reference leads to (RFC 3986, 5.2), without its fragment.
std::optional<Url> Resolve(const Url& base, const std::string& reference);
/// Scheme, host and port: what credentials belong to.
std::string OriginOf(const Url& url);
/// A text with the user info of all addresses in it taken out, where each ends with a blank or a
/// quotation mark at the latest.
std::string WithoutUserInfo(const std::string& text);
/// One address without its user info, whatever that holds; of no scheme and no form in particular.
std::string AddressWithoutUserInfo(const std::string& address);

/// "loopback" or "link-local" when no server elsewhere has that address (of IPv4 in one of IPv6,
/// too), otherwise empty.
std::string KindOfLocalAddress(const sockaddr& address);

/// Why an address may not be downloaded from; empty when it may, or when it does not resolve: there
/// may be a proxy. Begins with @p what. May ask the resolver, and waits for it.
///
/// It must be of http or https, of https only where @p before is ("from https to http"), and lead
/// to this machine or its link only where @p server, whom the operator has configured, is written
/// the same.
std::string LinkRefusal(const std::string& what, const std::optional<Url>& url,
                        const std::optional<Url>& server, const std::optional<Url>& before);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_LINK_RULES_H_
