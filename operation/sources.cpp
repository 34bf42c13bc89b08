#include "operation/sources.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/paths.h"
#include "base/percent.h"
#include "dataupdate/error.h"
#include "offer/offer.h"
#include "operation/belief.h"
#include "operation/cool_down.h"
#include "operation/credentials.h"
#include "operation/description_reader.h"
#include "operation/server_config.h"
#include "operation/taken_from.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using Kind = Source::Kind;

constexpr char kHttps[] = "https";

// What the thread that runs the operations has been told.
std::optional<Source> only_source;
std::optional<Source> asked_source;
std::set<std::string> left_out;

// Where the settings name none, what is asked for tells what is amiss with them.
Source ServerSource() {
  try {
    const ServerConfig config;
    const std::string scheme = config.GetDownloadScheme();
    const std::string netloc = config.GetDBInfoDomainName();
    return {Kind::kServer, scheme + "://" + netloc, ServerOf(scheme, netloc)};
  } catch (const dataupdate::UpdateError&) {
    return {};
  }
}

Source MirrorSource(const std::string& address) {
  const std::string shown = RememberCredentials(address, StatedBy::kConfiguration);
  const std::optional<Url> url = ParseUrl(shown);
  return {Kind::kMirror, shown, url->host + ':' + std::to_string(url->port)};
}

bool IsLessSecure(const std::string& address) {
  const std::optional<Url> server = ConfiguredServer();
  const std::optional<Url> url = ParseUrl(address);
  return server && server->scheme == kHttps && url && url->scheme != kHttps;
}

// Nothing else may follow the base of another server: it must be the same file there.
bool IsPlainPath(const std::string& path) {
  for (std::size_t at = 0; at <= path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string part = path.substr(at, end - at);
    if (part.empty() || part == "." || part == "..") {
      return false;
    }
    at = end + 1;
  }
  return std::none_of(path.begin(), path.end(), [](unsigned char c) {
    return c <= ' ' || c == 0x7f || c == '?' || c == '#' || c == '\\';
  });
}

// Of the cached description, where that is a signed one.
std::string Base() {
  try {
    const std::shared_ptr<const Json::Value> document = BeliefInCached().document;
    return offer::IsDocumentOfOffer(*document)
               ? AddressWithoutUserInfo((*document)["signed"]["base"].asString())
               : "";
  } catch (const std::exception&) {
    return "";  // The operation itself says what is amiss with it.
  }
}

// Where the link leads below the base of the signed description.
std::optional<std::string> PathBelowBase(const std::string& link) {
  const std::string base = Base();
  if (base.empty() || link.compare(0, base.size() + 1, base + '/') != 0) {
    return std::nullopt;
  }
  std::string path = link.substr(base.size() + 1);
  return IsPlainPath(path) ? std::make_optional(std::move(path)) : std::nullopt;
}

// What is asked for, though the settings may name no host.
std::string BehindHost(const std::string& url) {
  constexpr char kSchemeEnd[] = "://";
  const std::size_t scheme = url.find(kSchemeEnd);
  const std::size_t host = scheme == std::string::npos ? 0 : scheme + std::strlen(kSchemeEnd);
  return url.substr(std::min(url.find('/', host), url.size()));
}

// As it is called there, what an address has behind its base.
std::string PathIn(const Source& source, const std::string& path) {
  return source.kind == Kind::kDirectory ? base::PercentDecoded(path) : path;
}

std::string DirectoryOf(const std::string& place) {
  std::error_code error;
  const fs::path absolute = fs::absolute(place, error).lexically_normal();
  if (error || !fs::is_directory(absolute, error)) {
    throw std::runtime_error(place + (error ? ": " + error.message() : " is no directory"));
  }
  std::string text = absolute;
  while (text.size() > 1 && text.back() == '/') {
    text.pop_back();
  }
  return text;
}

Source SourceAt(const std::string& place) {
  if (place.find("://") == std::string::npos) {
    return {Kind::kDirectory, DirectoryOf(place), ""};
  }
  std::string address = place;
  while (!address.empty() && address.back() == '/') {
    address.pop_back();
  }
  if (!IsBaseAddress(address)) {
    throw std::runtime_error(AddressWithoutUserInfo(place) +
                             " is no base address of http or https");
  }
  if (IsLessSecure(address)) {
    throw std::runtime_error(AddressWithoutUserInfo(place) +
                             " is refused: the configured server is asked by https, so no other "
                             "one is by http");
  }
  return MirrorSource(address);
}

}  // namespace

std::vector<Source> PresentSources() {
  if (only_source) {
    return {*only_source};
  }
  std::vector<Source> sources{ServerSource()};
  for (const std::string& mirror : ReadOperatorSettings().mirrors) {
    sources.push_back(MirrorSource(mirror));
  }
  sources.erase(
      std::remove_if(sources.begin(), sources.end(),
                     [](const Source& source) { return left_out.count(source.name) != 0; }),
      sources.end());
  return sources;
}

std::string DescriptionPlace(const Source& source, const std::string& url) {
  if (source.kind == Kind::kServer) {
    return url;
  }
  const std::string path = BehindHost(url);
  return source.address + (source.kind == Kind::kMirror ? path : path.substr(0, path.find('?')));
}

std::vector<Place> PlacesOf(const std::string& link) {
  const std::vector<Source> sources = PresentSources();
  const bool has_others = std::any_of(sources.begin(), sources.end(), [](const Source& source) {
    return source.kind != Kind::kServer;
  });
  const std::optional<std::string> path = has_others ? PathBelowBase(link) : std::nullopt;
  std::vector<Place> places;
  for (const Source& source : sources) {
    if (source.kind == Kind::kServer) {
      places.push_back({source, link});
    } else if (path) {
      places.push_back({source, source.address + '/' + PathIn(source, *path)});
    }
  }
  return places;
}

void RequireSecureMirrors(const OperatorSettings& settings) {
  for (const std::string& mirror : settings.mirrors) {
    if (IsLessSecure(mirror)) {
      throw std::runtime_error(std::string(paths::kOperationSettings) +
                               ": mirrors: " + AddressWithoutUserInfo(mirror) +
                               " must be an address of https, by which the server is asked");
    }
  }
}

LeftOutSources::LeftOutSources(std::set<std::string> names) {
  left_out = std::move(names);
}

LeftOutSources::~LeftOutSources() {
  left_out.clear();
}

Asking::Asking(Source source) : before_(std::exchange(asked_source, std::move(source))) {}

Asking::~Asking() {
  asked_source = std::move(before_);
}

const std::optional<Source>& AskedSource() {
  return asked_source;
}

std::optional<Url> AskedServer() {
  return !asked_source || asked_source->kind == Kind::kServer ? ConfiguredServer()
         : asked_source->kind == Kind::kMirror                ? ParseUrl(asked_source->address)
                                                              : std::nullopt;
}

bool IsTakenFromElsewhere() {
  return only_source.has_value();
}

bool IsTakenFromDirectory() {
  return only_source && only_source->kind == Kind::kDirectory;
}

std::string SettingOfSource() {
  if (only_source) {
    return "--from";
  }
  return asked_source && asked_source->kind == Kind::kMirror
             ? std::string("mirrors in ") + paths::kOperationSettings
             : std::string("db_netloc in ") + paths::kServiceDefaults;
}

TakenFrom::TakenFrom(const std::string& place) {
  only_source = SourceAt(place);
  RefuseCachedDescription();
}

TakenFrom::~TakenFrom() {
  only_source.reset();
}

}  // namespace tolm::operation
