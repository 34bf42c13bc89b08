#include "package/member_path.h"

#include "package/error.h"

namespace tolm::package {

MemberPath SplitMemberPath(const std::string& name) {
  if (name.empty()) {
    throw Error(Code::kMemberPath, "a member without a name");
  }
  if (name.size() > kMaxMemberNameBytes) {
    throw Error(Code::kMemberPath, "member " + name.substr(0, 64) + "...: name longer than " +
                                       std::to_string(kMaxMemberNameBytes) + " bytes");
  }
  if (name.front() == '/') {
    throw Error(Code::kMemberPath, "member " + name + ": absolute name");
  }
  MemberPath path;
  std::size_t begin = 0;
  while (begin <= name.size()) {
    const std::size_t end = std::min(name.find('/', begin), name.size());
    const std::string component = name.substr(begin, end - begin);
    if (component == "..") {
      throw Error(Code::kMemberPath, "member " + name + ": \"..\" in its name");
    }
    if (!component.empty() && component != ".") {
      path.push_back(component);
    }
    begin = end + 1;
  }
  return path;
}

std::string JoinMemberPath(const MemberPath& path) {
  std::string text;
  for (const std::string& component : path) {
    text += (text.empty() ? "" : "/") + component;
  }
  return text;
}

bool IsReserved(const MemberPath& path) {
  return !path.empty() && path.front() == kSealName;
}

}  // namespace tolm::package
