#ifndef TOLM_OPERATION_DOWNLOAD_FAILURE_H_
#define TOLM_OPERATION_DOWNLOAD_FAILURE_H_

#include <string>

#include "operation/failure.h"
#include "operation/link_rules.h"
#include "operation/wget_log.h"

namespace tolm::operation {

/// Why wget, asked for the URL, has ended with that exit status, as far as that and what it has
/// written tell, and whether the file that it writes to can be written. Without user names,
/// passwords and the URL's query. No failure for the status 0.
Failure DownloadFailure(const Url& url, int exit_status, const WgetLog& log,
                        const std::string& file);

/// The URL as people are told of it: without user info and query.
std::string ShownUrl(const Url& url);
/// The same of any text that stands for one.
std::string ShownUrl(const std::string& text);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DOWNLOAD_FAILURE_H_
