#ifndef TOLM_PACKAGE_DESTINATION_H_
#define TOLM_PACKAGE_DESTINATION_H_

#include <string>

#include "base/descriptor.h"
#include "package/payload_reader.h"

namespace tolm::package {

/// A directory that members are put into. Every step is taken from an open directory by one name
/// that is not followed, so nothing outside is reached, whatever links lie in it or are made
/// meanwhile.
class Destination {
 public:
  /// @p fd stays the caller's and must outlive this object.
  explicit Destination(int fd) : fd_(fd) {}

  /// Creates one member, with the directories above it; a file's content is read from @p reader.
  /// Replaces a file or link of its name; an existing directory stays. Throws Error (kThroughLink,
  /// kInTheWay, kHardLink, kNoSpace, kWrite, and the reader's own).
  void Put(const Member& member, PayloadReader& reader) const;

 private:
  /// The open directory that holds the last component of @p path.
  base::Descriptor OpenParent(const MemberPath& path, bool create) const;

  void PutFile(int parent, const Member& member, PayloadReader& reader) const;
  void PutDirectory(int parent, const Member& member) const;
  void PutSymbolicLink(int parent, const Member& member) const;
  void PutHardLink(int parent, const Member& member) const;

  int fd_;
};

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_DESTINATION_H_
