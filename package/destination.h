#ifndef TOLM_PACKAGE_DESTINATION_H_
#define TOLM_PACKAGE_DESTINATION_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "package/payload_reader.h"

namespace tolm::package {

/// The way from a directory down to members. Every step is taken from an open directory by one name
/// that is not followed, so nothing outside is reached, whatever links lie in it or are made
/// meanwhile.
///
/// The directories of the last way stay open, since the next member mostly lies in the same. Each
/// of them is gone through again only when its name still leads to it, and to no link: what was
/// exchanged between two members is entered anew, or refused.
class MemberWay {
 public:
  /// @p root stays the caller's and must outlive this object. Where directories are missing they
  /// are made, or, when @p creates is false, the way throws Error(kHardLink).
  MemberWay(int root, bool creates) : root_(root), creates_(creates) {}

  /// The directory that holds the last component of @p path, open until the next call. Throws Error
  /// (kThroughLink, kInTheWay, kNoSpace, kWrite).
  int To(const MemberPath& path);

 private:
  struct Step {
    std::string name;
    base::Descriptor directory;
    dev_t device;
    ino_t inode;
  };

  int GoOpenSteps(const MemberPath& path);
  base::Descriptor Enter(int parent, const MemberPath& path, std::size_t step) const;

  int root_;
  bool creates_;
  std::vector<Step> steps_;
  base::Descriptor deeper_;  ///< The end of a way that has more steps than are held open.
};

/// A directory that members are put into, by a MemberWay.
class Destination {
 public:
  /// Who sees a file before all of it is there.
  enum class Audience {
    kEverybody,  ///< Nobody may: it is written under another name.
    kNobody      ///< Nobody can: who looks into the directory ignores what is in it.
  };

  /// @p fd stays the caller's and must outlive this object.
  Destination(int fd, Audience audience)
      : way_(fd, true), link_way_(fd, false), audience_(audience) {}

  /// Creates one member, with the directories above it; a file's content is read from @p reader.
  /// Replaces a file or link of its name; an existing directory stays. Throws Error (kThroughLink,
  /// kInTheWay, kHardLink, kNoSpace, kWrite, and the reader's own).
  void Put(const Member& member, PayloadReader& reader);

 private:
  void PutFile(int parent, const Member& member, PayloadReader& reader);
  void PutHardLink(int parent, const Member& member);

  MemberWay way_;
  MemberWay link_way_;  ///< To what hard links are made to.
  const Audience audience_;
};

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_DESTINATION_H_
