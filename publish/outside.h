#ifndef TOLM_PUBLISH_OUTSIDE_H_
#define TOLM_PUBLISH_OUTSIDE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "publish/settings.h"

namespace tolm::publish {

/// What was found of one package that is served.
struct OutsidePackage {
  std::string problem;  ///< why it cannot be had; empty when it can
  std::optional<std::uint64_t> size_bytes;
  std::string sha384;  ///< empty unless it was read
};

/// What is served, seen from outside.
class Outside {
 public:
  virtual ~Outside() = default;
  /// For messages.
  virtual std::string Name() const = 0;
  /// The description. Throws Error that says why it cannot be had.
  virtual std::string Description() = 0;
  /// The package that the link leads to.
  virtual OutsidePackage Look(const std::string& link) = 0;
  virtual OutsidePackage Measure(const std::string& link) = 0;
  /// What was noticed so far: what hurts every device, and what may hurt some.
  std::vector<std::string> wrong;
  std::vector<std::string> remarks;
};

/// Through a web server, by wget; @p url is where the public directory is.
std::unique_ptr<Outside> OutsideOnWeb(const std::string& url, const Settings& settings);

/// Through rclone. What links have behind the base URL is looked for at the same path.
std::unique_ptr<Outside> OutsideInStore(const std::string& remote, const Settings& settings);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_OUTSIDE_H_
