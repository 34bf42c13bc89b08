#include "operation/download_failure.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/paths.h"
#include "operation/credentials.h"
#include "operation/sources.h"

namespace tolm::operation {
namespace {

// wget's exit statuses.
constexpr int kNotBegun = 1;
constexpr int kCannotWrite = 3;
constexpr int kProtocol = 7;
constexpr int kSignalled = 128;  // And the signal.

struct Status {
  int number;
  const char* name;
};

// Not what a server calls its answer: that may be anything.
constexpr Status kStatuses[] = {{400, "Bad Request"},
                                {401, "Unauthorized"},
                                {403, "Forbidden"},
                                {404, "Not Found"},
                                {407, "Proxy Authentication Required"},
                                {408, "Request Timeout"},
                                {410, "Gone"},
                                {429, "Too Many Requests"},
                                {500, "Internal Server Error"},
                                {502, "Bad Gateway"},
                                {503, "Service Unavailable"},
                                {504, "Gateway Timeout"}};

std::string StatusText(int number) {
  const auto* const found =
      std::find_if(std::begin(kStatuses), std::end(kStatuses),
                   [number](const Status& status) { return status.number == number; });
  return found == std::end(kStatuses) ? "HTTP status " + std::to_string(number)
                                      : std::to_string(number) + ' ' + found->name;
}

std::string StatusRemedy(int number, const Url& url) {
  switch (number) {
    case 401:
      return CredentialsFor(url) ? "it does not accept the user and password that are set for it"
                                 : "user and password stand before the host in " +
                                       SettingOfSource() + " (user:password@host)";
    case 403:
      return "ask who runs the server why it refuses this machine";
    case 404:
    case 410:
      return "tolmdbud check --refresh asks what is offered now";
    case 407:
      return "the proxy's user and password stand in the settings of wget";
    default:
      return number == 429 || number >= 500 ? "the server is overloaded or broken: try later" : "";
  }
}

Failure StatusFailure(const Url& url, int number) {
  return {reasons::kHttpStatus, StatusText(number) + " from " + ShownUrl(url),
          StatusRemedy(number, url), "", number};
}

// "example.org:443", or what wget was connecting to, where that is a proxy.
std::string PeerOf(const Url& url, const WgetLog& log) {
  return log.Peer().empty() ? url.host + ':' + std::to_string(url.port) : log.Peer();
}

constexpr char kDateRemedy[] =
    "is the date of this machine right? Otherwise who runs the server "
    "has to renew it";

constexpr char kLeadsThere[] = "the server's description, or a redirect, leads there";

bool IsConfigured(const std::string& host) {
  const std::optional<Url> server = AskedServer();
  return server && server->host == host;
}

// Who has to be asked about a name: besides the configured server's and those it leads to, wget
// deals with a proxy only.
std::string PlaceOf(const std::string& host, const Url& url) {
  if (IsConfigured(host)) {
    return "the name stands as " + SettingOfSource();
  }
  return host == url.host ? kLeadsThere : "the name stands in the settings of the proxy";
}

// What is known of a cause besides its text.
Failure CauseFailure(WgetCause cause, const Url& url, const std::string& peer) {
  switch (cause) {
    case WgetCause::kNameNotResolved:
      return {reasons::kNameNotResolved, "no address is known for the name " + peer,
              "\"getent hosts " + peer + "\" asks the resolver; " + PlaceOf(peer, url)};
    case WgetCause::kRefused:
      return {reasons::kConnectionRefused, peer + " refuses the connection",
              "no server runs there, or not at that port"};
    case WgetCause::kNotReached:
      return {reasons::kNotReached, "there is no road to " + peer, "is the network up?"};
    case WgetCause::kTimedOut:
      return {reasons::kTimedOut, peer + " does not answer in time", "try later"};
    case WgetCause::kBroken:
      return {reasons::kConnectionBroken, peer + " has broken the connection off", "try later"};
    case WgetCause::kTlsNotTrusted:
      return {reasons::kTlsNotTrusted,
              "the certificate of " + peer + " comes from no authority that this machine trusts",
              "trust it by ca_certificate in the settings of wget, or ask who runs the server"};
    case WgetCause::kTlsExpired:
      return {reasons::kTlsExpired, "the certificate of " + peer + " has expired", kDateRemedy};
    case WgetCause::kTlsNotYetValid:
      return {reasons::kTlsNotYetValid, "the certificate of " + peer + " is not valid yet",
              kDateRemedy};
    case WgetCause::kTlsOtherName:
      return {reasons::kTlsOtherName, "the certificate of " + peer + " is for another name",
              IsConfigured(url.host) ? "is " + SettingOfSource() + " right?" : kLeadsThere};
    case WgetCause::kTlsFailed:
      return {reasons::kTlsFailed, "no TLS connection to " + peer + " comes about",
              "is download_scheme right, does the server speak https at that port?"};
    case WgetCause::kNoRoom:
      return {reasons::kNoRoom, "the download does not fit on its disk", "make room there"};
  }
  return {};
}

// wget tells it to no log when it cannot even open the file. Empty when the file can be written.
std::string WhyNotWritable(const std::string& file) {
  if (access(file.c_str(), W_OK) == 0) {
    return "";
  }
  if (errno == ENOENT &&
      access(std::filesystem::path(file).parent_path().c_str(), W_OK | X_OK) == 0) {
    return "";
  }
  return std::strerror(errno);
}

Failure NotWritten(const Url& url, const std::string& file, const std::string& reason) {
  return {reasons::kDownloadFailed,
          "what comes from " + ShownUrl(url) + " cannot be written to " + file +
              (reason.empty() ? "" : ": " + reason),
          "is the file system writable? \"dmesg\" tells when a disk fails"};
}

}  // namespace

std::string ShownUrl(const Url& url) {
  Url shown = url;
  shown.rest = url.rest.substr(0, url.rest.find_first_of("?#"));
  return TextOf(shown);
}

std::string ShownUrl(const std::string& text) {
  const std::optional<Url> url = ParseUrl(text);
  return url ? ShownUrl(*url) : AddressWithoutUserInfo(text.substr(0, text.find_first_of("?#")));
}

Failure DownloadFailure(const Url& url, int exit_status, const WgetLog& log,
                        const std::string& file) {
  constexpr int kFirstFailed = 300;
  if (exit_status == 0) {
    return {};
  }
  if (log.Cause()) {
    return CauseFailure(*log.Cause(), url, PeerOf(url, log));
  }
  if (log.Status() >= kFirstFailed) {
    return StatusFailure(url, log.Status());
  }
  if (exit_status == kCannotWrite) {
    return NotWritten(url, file, log.WriteError());
  }
  const std::string reason = exit_status == kNotBegun ? WhyNotWritable(file) : "";
  if (!reason.empty()) {
    return NotWritten(url, file, reason);
  }
  const std::string shown = ShownUrl(url);
  if (exit_status == kProtocol) {
    return {reasons::kDownloadFailed, PeerOf(url, log) + " does not answer as a web server does"};
  }
  if (exit_status > kSignalled) {
    return {reasons::kDownloadFailed,
            "wget was ended by signal " + std::to_string(exit_status - kSignalled) +
                " before it had " + shown,
            "try again"};
  }
  return {reasons::kDownloadFailed,
          "wget ended with status " + std::to_string(exit_status) + " for " + shown,
          "the system log has what it said (journalctl -t tolmdbud)"};
}

}  // namespace tolm::operation
