#ifndef TOLM_OPERATION_GUARDED_WGET_H_
#define TOLM_OPERATION_GUARDED_WGET_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "operation/failure.h"

namespace tolm::operation {

class PartialDownload;

struct DownloadResult {
  /// wget's, 128 + the signal's number when one ended it, negative when it was not run.
  int exit_status;
  /// Why it failed, where wget's exit status does not tell.
  std::string reason;
  /// The same for people and programs, of every download that failed.
  Failure failure{};
  /// How many further sources have failed besides the one that this is about.
  std::size_t further = 0;
  /// How much was received into the file, without what was there before.
  std::uint64_t received_bytes = 0;
};

/// Why an address may not be downloaded from; empty when it may, and for a source that is no
/// server. The server's own address is that of the one that is asked (see sources.h); nothing leads
/// to http where the configured one is asked by https. Waits for the resolver.
std::string RefusalOfLink(const std::string& url);

/// Downloads what may be downloaded, by calls of @p run, which runs wget with the URL and returns
/// its exit status. wget gets settings of its own for them, through the environment variable
/// WGETRC: those of the operator, the credentials for this server only, and to follow no redirect,
/// since this does, as far as the rules for links go. A download that is too slow is ended. wget's
/// last lines are logged when it fails. By one thread at a time.
///
/// With @p partial, which is of the same file, it goes on with what was received before: again and
/// again while the server breaks off and every attempt brings something (rules.h), with waits that
/// a signal ends. What was gone on with is compared with what the signed description says once it
/// is whole. Where it differs, or where the server does not go on with what an earlier run has
/// received, the package is downloaded from zero, once.
DownloadResult RunGuarded(const std::string& url, const std::string& file,
                          const std::function<int(const std::string& url)>& run,
                          PartialDownload* partial = nullptr);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_GUARDED_WGET_H_
