#ifndef TOLM_PACKAGE_MEMBER_PATH_H_
#define TOLM_PACKAGE_MEMBER_PATH_H_

#include <string>
#include <vector>

namespace tolm::package {

/// The top-level name that belongs to the format itself.
inline constexpr char kSealName[] = ".tolmpkg";

/// A member's name taken apart: at no place empty, "." or "..". No component at all means the
/// destination itself.
using MemberPath = std::vector<std::string>;

/// Takes @p name apart; empty and "." components are dropped. Throws Error(kMemberPath) for an
/// empty or absolute name and for "..".
MemberPath SplitMemberPath(const std::string& name);

/// The components with "/" between them.
std::string JoinMemberPath(const MemberPath& path);

/// Whether the path is, or lies below, the top-level name that belongs to the format.
bool IsReserved(const MemberPath& path);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_MEMBER_PATH_H_
