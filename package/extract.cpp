#include "package/extract.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <set>

#include "package/destination.h"
#include "package/error.h"
#include "package/payload_reader.h"

namespace tolm::package {
namespace {

// Which members are wanted.
class Selection {
 public:
  explicit Selection(const std::vector<std::string>* members) : everything_(members == nullptr) {
    if (members != nullptr) {
      for (const std::string& name : *members) {
        names_.insert(JoinMemberPath(SplitMemberPath(name)));
      }
    }
  }

  bool Holds(const std::string& name) const { return everything_ || names_.count(name) > 0; }
  const std::set<std::string>& names() const { return names_; }

 private:
  bool everything_;
  std::set<std::string> names_;
};

// Sums up file sizes without overflowing.
class Demand {
 public:
  void Add(std::uint64_t bytes) {
    bytes_ = bytes > UINT64_MAX - bytes_ ? UINT64_MAX : bytes_ + bytes;
  }
  std::uint64_t bytes() const { return bytes_; }

 private:
  std::uint64_t bytes_ = 0;
};

void CheckRoom(std::uint64_t needed_bytes, int destination) {
  struct statvfs status {};
  if (::fstatvfs(destination, &status) != 0) {
    throw SystemError(Code::kWrite, "destination", errno);
  }
  // A file system without a size of its own reports 0 blocks.
  const std::uint64_t free_bytes = std::uint64_t{status.f_bavail} * status.f_frsize;
  if (status.f_blocks != 0 && needed_bytes > free_bytes) {
    throw Error(Code::kNoSpace, "unpacked it takes " + std::to_string(needed_bytes) +
                                    " bytes, free are " + std::to_string(free_bytes));
  }
}

void CheckAll(int package, std::uint64_t payload_bytes, int destination,
              const Selection& selection) {
  PayloadReader reader(package, payload_bytes);
  std::set<std::string> missing = selection.names();
  Demand demand;
  bool empty = true;
  for (Member member; reader.Next(member); empty = false) {
    missing.erase(member.name);
    if (selection.Holds(member.name)) {
      demand.Add(member.size_bytes);
    }
  }
  if (empty) {
    throw Error(Code::kNoMembers, "nothing in it to unpack");
  }
  if (!missing.empty()) {
    throw Error(Code::kMemberMissing, "no member " + *missing.begin());
  }
  CheckRoom(demand.bytes(), destination);
}

}  // namespace

void ExtractPayload(int package, std::uint64_t payload_bytes, int destination,
                    const std::vector<std::string>* members) {
  const Selection selection(members);
  CheckAll(package, payload_bytes, destination, selection);
  PayloadReader reader(package, payload_bytes);
  Destination root(destination);
  for (Member member; reader.Next(member);) {
    if (selection.Holds(member.name)) {
      root.Put(member, reader);
    }
  }
}

}  // namespace tolm::package
