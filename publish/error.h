#ifndef TOLM_PUBLISH_ERROR_H_
#define TOLM_PUBLISH_ERROR_H_

#include <stdexcept>

namespace tolm::publish {

/// Why something of a repository was refused or failed. what() is a sentence for people; it names
/// what it is about first. What concerns a package alone is a package::Error.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_ERROR_H_
