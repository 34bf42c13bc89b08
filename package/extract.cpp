#include "package/extract.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <optional>
#include <set>

#include "package/destination.h"
#include "package/error.h"
#include "package/payload_reader.h"
#include "package/xz_size.h"

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

// What is free where the files go, at first.
class Room {
 public:
  explicit Room(int destination) {
    struct statvfs status {};
    if (::fstatvfs(destination, &status) != 0) {
      throw SystemError(Code::kWrite, "destination", errno);
    }
    // A file system without a size of its own reports 0 blocks.
    free_bytes_ =
        status.f_blocks == 0 ? UINT64_MAX : std::uint64_t{status.f_bavail} * status.f_frsize;
  }

  bool Holds(std::uint64_t bytes) const { return bytes <= free_bytes_; }
  void Require(std::uint64_t bytes) const {
    if (!Holds(bytes)) {
      throw Error(Code::kNoSpace, "unpacked it takes " + std::to_string(bytes) +
                                      " bytes, free are " + std::to_string(free_bytes_));
    }
  }

 private:
  std::uint64_t free_bytes_;
};

void RequireMembers(bool has_members) {
  if (!has_members) {
    throw Error(Code::kNoMembers, "nothing in it to unpack");
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
  RequireMembers(!empty);
  if (!missing.empty()) {
    throw Error(Code::kMemberMissing, "no member " + *missing.begin());
  }
  Room(destination).Require(demand.bytes());
}

void UnpackSelection(int package, std::uint64_t payload_bytes, int destination,
                     const Selection& selection) {
  CheckAll(package, payload_bytes, destination, selection);
  PayloadReader reader(package, payload_bytes);
  Destination root(destination, Destination::Audience::kEverybody);
  for (Member member; reader.Next(member);) {
    if (selection.Holds(member.name)) {
      root.Put(member, reader);
    }
  }
}

// To how much it unpacks where it is known without unpacking that all of it fits.
std::optional<std::uint64_t> BytesThatFit(int package, std::uint64_t payload_bytes,
                                          int destination) {
  const std::optional<std::uint64_t> bytes = XzUnpackedBytes(package, payload_bytes);
  return bytes && Room(destination).Holds(*bytes) ? bytes : std::nullopt;
}

// The holes of sparse files are in no payload, so room is looked at here too.
void UnpackAside(PayloadReader& reader, int destination, const StagingDirectory::Notice& notice) {
  const Room room(destination);
  StagingDirectory staging(destination, notice);
  Destination root(staging.Get(), Destination::Audience::kNobody);
  Demand demand;
  bool empty = true;
  for (Member member; reader.Next(member); empty = false) {
    demand.Add(member.size_bytes);
    room.Require(demand.bytes());
    root.Put(member, reader);
  }
  RequireMembers(!empty);
  staging.PutInPlace();
}

// Nothing can be harmed there, so one look is enough where all of it fits.
void UnpackIntoEmpty(int package, std::uint64_t payload_bytes, int destination,
                     const StagingDirectory::Notice& notice) {
  const std::optional<std::uint64_t> bytes = BytesThatFit(package, payload_bytes, destination);
  if (bytes) {
    PayloadReader reader(package, payload_bytes, *bytes);
    UnpackAside(reader, destination, notice);
  } else {
    CheckAll(package, payload_bytes, destination, Selection(nullptr));
    PayloadReader reader(package, payload_bytes);
    UnpackAside(reader, destination, notice);
  }
}

}  // namespace

void ExtractPayload(int package, std::uint64_t payload_bytes, int destination,
                    const std::vector<std::string>* members,
                    const StagingDirectory::Notice& notice) {
  if (members == nullptr) {
    StagingDirectory::RemoveLeftOvers(destination, notice);
  }
  if (members == nullptr && StagingDirectory::IsEmpty(destination)) {
    UnpackIntoEmpty(package, payload_bytes, destination, notice);
  } else {
    UnpackSelection(package, payload_bytes, destination, Selection(members));
  }
}

}  // namespace tolm::package
