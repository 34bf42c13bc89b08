#ifndef TOLM_PUBLISH_REMOTE_CHECK_H_
#define TOLM_PUBLISH_REMOTE_CHECK_H_

#include <cstdint>
#include <string>
#include <vector>

#include "publish/workshop.h"

namespace tolm::publish {

struct RemoteCheckRequest {
  std::string repository;
  /// "http://..." or "https://...", where devices find the public directory; or a remote of rclone.
  std::string remote;
  bool quick = false;  ///< of packages the sizes alone
};

struct RemoteCheckReport {
  std::vector<std::string> wrong;    ///< a sentence each; empty: what is served is in order
  std::vector<std::string> remarks;  ///< what may become wrong, or costs devices something
  std::uint64_t packages = 0;        ///< that were looked at
  std::uint64_t bytes = 0;           ///< of packages, that were read
};

/// Proves what is served from outside, as devices get it: the description, whose signature,
/// identity, form and end are judged as by a device that has seen none before; that it is not older
/// than this repository's own; and every package that it names, with its size and, unless it is to
/// be quick, its digest. Packages are not kept. From the web it is asked by wget, links are
/// followed as they are, and headers that hurt are remarks; from a remote, what lies below the base
/// URL is looked for at the same path. Changes nothing and takes no lock. Throws Error,
/// package::Error when the check itself cannot be made.
RemoteCheckReport CheckRemote(const RemoteCheckRequest& request, std::int64_t now,
                              const Steps& steps);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REMOTE_CHECK_H_
