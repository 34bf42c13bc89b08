#include "operation/credentials.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <mutex>

#include "base/percent.h"

namespace tolm::operation {
namespace {

struct Remembered {
  Credentials credentials;
  StatedBy by;
};

constexpr std::size_t kMostRemembered = 1000;

std::mutex mutex;
std::map<std::string, Remembered> remembered;  // By origin; guarded by the mutex.

// They become lines of wget's settings.
bool IsOneLine(const std::string& text) {
  return std::none_of(text.begin(), text.end(),
                      [](unsigned char c) { return c < ' ' || c == 0x7f; });
}

// Under the mutex. A server could go on stating others for ever.
void ForgetLinks() {
  for (auto entry = remembered.begin(); entry != remembered.end();) {
    entry = entry->second.by == StatedBy::kLink ? remembered.erase(entry) : std::next(entry);
  }
}

void Remember(const Url& url, StatedBy by) {
  const std::size_t colon = std::min(url.user_info.find(':'), url.user_info.size());
  Credentials credentials{base::PercentDecoded(url.user_info.substr(0, colon)), ""};
  if (colon < url.user_info.size()) {
    credentials.password = base::PercentDecoded(url.user_info.substr(colon + 1));
  }
  if (!IsOneLine(credentials.user) || !IsOneLine(credentials.password)) {
    return;
  }
  const std::lock_guard<std::mutex> lock(mutex);
  if (remembered.size() >= kMostRemembered) {
    ForgetLinks();
  }
  const auto [entry, is_new] = remembered.try_emplace(OriginOf(url), Remembered{credentials, by});
  if (!is_new && (by == StatedBy::kConfiguration || entry->second.by == StatedBy::kLink)) {
    entry->second = {credentials, by};
  }
}

}  // namespace

std::string RememberCredentials(const std::string& address, StatedBy by) {
  const std::optional<Url> url = ParseUrl(address);
  if (url && !url->user_info.empty()) {
    Remember(*url, by);
  }
  return AddressWithoutUserInfo(address);
}

std::optional<Credentials> CredentialsFor(const Url& url) {
  const std::lock_guard<std::mutex> lock(mutex);
  const auto found = remembered.find(OriginOf(url));
  return found == remembered.end() ? std::nullopt : std::make_optional(found->second.credentials);
}

}  // namespace tolm::operation
