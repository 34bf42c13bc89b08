#ifndef TOLM_PUBLISH_CHECK_MEMORY_H_
#define TOLM_PUBLISH_CHECK_MEMORY_H_

#include <map>
#include <string>

namespace tolm::publish {

/// One delta that was applied, and gave its release. All are SHA-384: of packages, or of trees as
/// TreeDigest() makes them.
struct ProvedStep {
  std::string delta;
  std::string before;  ///< the full package of the version before; empty when it was not there
  std::string after;   ///< the full package that it must give
  std::string start;   ///< what the deltas before it had given, to which it was applied
  std::string result;  ///< what it gave
  bool exact = false;  ///< whether that has the bytes of the release, in every file
};

/// What is remembered of the chain of one database.
struct ProvedChain {
  std::map<int, ProvedStep> steps;  ///< by the version that the delta leads to
  /// Of chains that were applied in one update, by the version that they begin at: a digest of
  /// their packages.
  std::map<int, std::string> together;
};

/// Reads what was remembered. Nothing at all when the file is not there, is not what
/// FormatProvedChain() makes, or was made with another @p proved_by.
ProvedChain LoadProvedChain(const std::string& path, const std::string& proved_by);

/// As one document (docs/formats/repository.md). @p proved_by tells apart all that a result hangs
/// on besides the packages: the programs, and whom they trust.
std::string FormatProvedChain(const ProvedChain& chain, const std::string& proved_by);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CHECK_MEMORY_H_
