#ifndef TOLM_PACKAGE_SEAL_H_
#define TOLM_PACKAGE_SEAL_H_

#include <cstddef>
#include <string>

namespace tolm::package {

enum class Kind { kFull, kDelta };

/// What a package says about itself, under its signature: which database, what kind, which version.
struct Seal {
  std::string name;
  Kind kind = Kind::kFull;
  int version = 0;
};

/// The largest ".tolmpkg" that is read.
inline constexpr std::size_t kMaxSealBytes = 4096;

/// "full" or "delta".
const char* KindText(Kind kind);

/// Why @p name cannot be a sealed name, empty when it can: 1 to 200 bytes of UTF-8, no "/", no
/// control characters.
std::string NameProblem(const std::string& name);

/// The JSON text of ".tolmpkg"; the same seal gives the same bytes. Throws Error(kArgument) for a
/// name that NameProblem refuses or a negative version.
std::string FormatSeal(const Seal& seal);

/// Reads ".tolmpkg". Throws Error(kBadSeal) for anything but an object with a valid name, a kind of
/// "full" or "delta" and an integer version from 0 to INT_MAX; other keys are ignored.
Seal ParseSeal(const std::string& text);

/// Checks the seal against the last component of @p package_path when that is <name>_v<N>,
/// <name>_d<N> or <name>_debug (split at the last underscore; N may bear a sign, which no seal
/// matches). Throws Error (kWrongName, kWrongKind, kWrongVersion) when they disagree. Any other
/// file name is not checked.
void CheckFileName(const Seal& seal, const std::string& package_path);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_SEAL_H_
