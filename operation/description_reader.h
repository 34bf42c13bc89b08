#ifndef TOLM_OPERATION_DESCRIPTION_READER_H_
#define TOLM_OPERATION_DESCRIPTION_READER_H_

#include <string>
#include <vector>

#include "dataupdate/io_utils.h"
#include "operation/belief.h"
#include "operation/sources.h"

namespace tolm::operation {

/// Reads the cached description only when it is a regular file within the bounds of base/rules.h,
/// which it is measured for before it is parsed, and only where it is believed (see belief.h): of a
/// signed one what its signed text says. Every other file is read as the library reads it.
class DescriptionReader : public dataupdate::IOUtils {
 public:
  /// Opens no pipe, whatever the file is, which would wait for its other end.
  /// Throws UpdateError: "Fail to read" or "Fail to decode", the path, and where it is a bound,
  /// which one; that too when there is too little memory. Throws Disbelieved.
  Json::Value ReadJson(const std::string& path) const override;
};

/// What is believed of the cached description, as the above reads it; throws as that does. What a
/// signed one says stays in memory for as long as the file is the same.
Belief BeliefInCached();

/// Whether that is where a download puts the description: its own place, or that of an answer that
/// has not been looked at yet.
bool IsPlaceOfDescription(const std::string& file);

/// Why a document is no description for a device with these databases, in words; empty when it is
/// one. A record of the wrong form is the matter of that database alone.
std::string ProblemOfDescription(const Json::Value& document,
                                 const std::vector<std::string>& databases);
/// The configured databases; none when the settings cannot be read.
std::vector<std::string> ConfiguredDatabases();

/// From now on the server is asked, however young the cached description is, until it has given
/// one. Any thread may call these.
void RefuseCachedDescription() noexcept;
bool IsCachedDescriptionRefused() noexcept;
/// Whether the cached description is one that the server has given this very process.
bool IsCachedDescriptionOwn() noexcept;

/// The same for who asks the server: a cached description that cannot be used is removed and
/// logged, so that the server is asked anew. Under the lock on it (fresh_info), which is the
/// caller's matter: the library's InfoGetter has it when it calls these. One that is not believed
/// stays until another one takes its place.
class DescriptionKeeper : public DescriptionReader {
 public:
  /// Removes what it throws for.
  Json::Value ReadJson(const std::string& path) const override;
  /// True besides for a description that is no regular file, too large, from the future, or none
  /// at all, which is removed, for one that is not believed, and while the cached one is refused.
  bool FileCreateOver(const std::string& path, int seconds) const override;
  /// An answer takes the place of the cached description, whole, when it is one itself and is
  /// believed; what it leaves to remember is on the disk before. One source after the other is
  /// asked until one gives such an answer; a mirror's must be signed. Where there is one source
  /// only, which has none (404), it is asked once more, two seconds later. Throws UpdateError that
  /// says what the first one's answer is otherwise, and base::FileError; what was cached stays
  /// then.
  void Download(const std::string& output, const std::string& url) const override;

 private:
  void DownloadDescription(const std::string& url) const;
  void DownloadFromOnly(const Source& source, const std::string& url) const;
  void DownloadFrom(const Source& source, const std::string& url) const;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DESCRIPTION_READER_H_
