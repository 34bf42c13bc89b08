#ifndef TOLM_BASE_LOG_H_
#define TOLM_BASE_LOG_H_

#include <syslog.h>

/// Every line in the system log begins with the name of the source file and the line. A source that
/// logs defines kLogSource, and each of its formats begins with "%s:%d ":
///
///     syslog(LOG_INFO, "%s:%d Update %s fail: %s", TOLM_LOG_HERE, name.c_str(), error.what());
#define TOLM_LOG_HERE kLogSource, __LINE__

#endif  // TOLM_BASE_LOG_H_
