#ifndef TOLM_PACKAGE_MEMBER_PATH_H_
#define TOLM_PACKAGE_MEMBER_PATH_H_

#include <cstddef>
#include <string>
#include <vector>

namespace tolm::package {

/// The top-level name that belongs to the format itself.
inline constexpr char kSealName[] = ".tolmpkg";

/// The longest member name. Whatever is unpacked must also be found and removed again by its path,
/// and with the destination before it that path has to stay below PATH_MAX.
inline constexpr std::size_t kMaxMemberNameBytes = 2048;

/// A member's name taken apart: at no place empty, "." or "..". No component at all means the
/// destination itself.
using MemberPath = std::vector<std::string>;

/// Takes @p name apart; empty and "." components are dropped. Throws Error(kMemberPath) for an
/// empty, absolute or too long name and for "..".
MemberPath SplitMemberPath(const std::string& name);

/// The components with "/" between them.
std::string JoinMemberPath(const MemberPath& path);

/// Whether the path is, or lies below, the top-level name that belongs to the format.
bool IsReserved(const MemberPath& path);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_MEMBER_PATH_H_
