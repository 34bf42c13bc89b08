#include <boost/format.hpp>
#include <cstdint>
#include <cstring>

#include "base/messages.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/strategy.h"
#include "digest_stream.h"
#include "strategy_support.h"
#include "tolm/archive.h"

namespace tolm::dataupdate {
namespace {

// A signed package being read; the platform's handle is released on every path.
class Archive {
 public:
  Archive(const std::string& package, const std::string& dest)
      : package_(package), handle_(tolmarchive_init(dest.c_str())) {
    if (handle_ == nullptr) {
      throw UpdateError(messages::kNoArchive);
    }
  }
  ~Archive() { tolmarchive_free(handle_); }
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  void Open() const {
    if (tolmarchive_open_with_keytype(handle_, package_.c_str(), rules::kPackageKeyType) == 0) {
      Fail(messages::kArchiveOpenFailed);
    }
  }
  void ExtractAll() const {
    if (tolmarchive_extract_multiple(handle_, nullptr, rules::kExtractFlags) == 0) {
      Fail(messages::kArchiveExtractFailed);
    }
  }

 private:
  [[noreturn]] void Fail(const char* message) const {
    std::uint32_t words[3];  // the third is the last error
    std::memcpy(words, handle_, sizeof words);
    throw UpdateError((NoexceptFormat(message) % package_ % words[2]).str());
  }

  std::string package_;
  tolmarchive* handle_;
};

}  // namespace

BaseStrategy::~BaseStrategy() = default;

void BaseStrategy::PrepareUpdate() {}

void BaseStrategy::ApplyUpdate() {}

std::set<std::string> BaseStrategy::GetModifiedFiles() const {
  return {};
}

long long BaseStrategy::GetDeltaSize() const {
  return 0;
}

bool BaseStrategy::_CheckDigest(const std::string& path, const std::string& digest) {
  DigestStream in(path);
  return GetSha384(in) == digest;
}

bool BaseStrategy::_IsSpaceEnough(const std::string& path, long long delta) {
  return IsSpaceEnough(path, delta);
}

void BaseStrategy::_ExtractTarballTo(const std::string& tarball, const std::string& dest) {
  const Archive archive(tarball, dest);
  archive.Open();
  archive.ExtractAll();
}

}  // namespace tolm::dataupdate
