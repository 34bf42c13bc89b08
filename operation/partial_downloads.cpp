#include "operation/partial_downloads.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <filesystem>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "operation/offered_size.h"
#include "operation/own_ground.h"
#include "operation/room.h"
#include "operation/sources.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

constexpr char kLogSource[] = "partial";
constexpr mode_t kOwn = 0600;
constexpr mode_t kOthersRights = 0077;
constexpr std::size_t kDigestDigits = 96;
constexpr char kCopySuffix[] = ".copy";

void Note(const std::exception& error) {
  syslog(LOG_NOTICE, "%s:%d %s", TOLM_LOG_HERE, error.what());
}

// What goes wrong here is no matter of the operation's.
template <typename Action>
void Noting(const Action& action) noexcept {
  try {
    action();
  } catch (const std::exception& error) {
    Note(error);
  }
}

std::uint64_t SizeOf(const struct stat& status) {
  return static_cast<std::uint64_t>(status.st_size);
}

bool IsDigest(const std::string& name) {
  return name.size() == kDigestDigits &&
         name.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// A program that an operation has started lives on when that is killed, and may go on writing.
// Where the file system cannot tell, the digest does in the end.
bool IsBeingWritten(int file) {
  if (fcntl(file, F_SETLEASE, F_RDLCK) == 0) {
    fcntl(file, F_SETLEASE, F_UNLCK);
    return false;
  }
  return errno == EAGAIN;
}

// The kept files of a volume.
class Store {
 public:
  struct Entry {
    std::string name;
    std::int64_t grown;
  };

  static std::optional<Store> Enter(const std::string& volume, bool is_made) {
    if (volume.empty()) {
      return std::nullopt;
    }
    std::optional<PartialsDirectory> directory = EnterPartials(volume, is_made);
    return directory ? std::make_optional(Store(std::move(*directory))) : std::nullopt;
  }
  /// That of the operation that runs.
  static std::optional<Store> OfOperation(bool is_made) {
    const OwnGround* const ground = OwnGround::InForce();
    return ground == nullptr ? std::nullopt : Enter(ground->volume(), is_made);
  }

  int Get() const { return at_.directory.Get(); }

  /// The size of a file that can be gone on with; nothing where there is none.
  std::optional<std::uint64_t> Look(const std::string& name, std::uint64_t most_bytes) const {
    struct stat status;
    if (fstatat(Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !IsOwn(status, most_bytes)) {
      return std::nullopt;
    }
    return SizeOf(status);
  }

  /// Afterwards there is one that can be gone on with, and that nobody else writes.
  void MakeUsable(const std::string& name, std::uint64_t most_bytes) const {
    if (Look(name, most_bytes)) {
      LeaveToWriters(name);
      return;
    }
    Remove(name);
    Create(name, O_EXCL);
    Sync(name);
  }

  /// Moves that file of the library's here. Others may have put something in its place where a
  /// volume keeps no owners.
  void Take(const std::string& file, const std::string& name) const {
    const base::Descriptor opened(
        open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!opened.IsOpen() || fstat(opened.Get(), &status) != 0) {
      throw base::FileError(errno, "keep", file);
    }
    if (!S_ISREG(status.st_mode)) {
      throw base::FileError(EINVAL, "keep", file);
    }
    if ((at_.keeps_owners && fchmod(opened.Get(), kOwn) != 0) ||
        renameat(AT_FDCWD, file.c_str(), Get(), name.c_str()) != 0) {
      throw base::FileError(errno, "keep", file);
    }
  }

  void Remove(const std::string& name) const {
    if (unlinkat(Get(), name.c_str(), 0) != 0 && errno != ENOENT) {
      // Root's own doing: nothing of ours is a directory.
      syslog(LOG_NOTICE, "%s:%d %s/%s cannot be removed", TOLM_LOG_HERE,
             at_.directory.path().c_str(), name.c_str());
    }
  }

  /// What is in the file, and its name, are on the disk.
  void Sync(const std::string& name) const {
    const base::Descriptor file(
        openat(Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen() || fdatasync(file.Get()) != 0 || fsync(Get()) != 0) {
      Fail("sync", name);
    }
  }

  std::vector<Entry> List() const {
    std::vector<Entry> entries;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(
        fdopendir(openat(Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), closedir);
    if (stream == nullptr) {
      Fail("list", ".");
    }
    while (const dirent* const entry = readdir(stream.get())) {
      const std::string name = entry->d_name;
      struct stat status;
      if (name != "." && name != ".." &&
          fstatat(Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        const bool is_ours = IsDigest(name) && S_ISREG(status.st_mode);
        entries.push_back({name, is_ours ? status.st_mtime : 0});
      }
    }
    return entries;
  }

  /// The directory goes with the last file.
  void RemoveIfEmpty() const { rmdir(at_.directory.path().c_str()); }

 private:
  explicit Store(PartialsDirectory at) : at_(std::move(at)) {}

  [[noreturn]] void Fail(const char* action, const std::string& name) const {
    throw base::FileError(errno, action, at_.directory.path() + '/' + name);
  }

  // A file with another name somewhere is somebody's, who may write it; so is an open one.
  bool IsOwn(const struct stat& status, std::uint64_t most_bytes) const {
    const bool is_roots =
        !at_.keeps_owners || (status.st_uid == 0 && (status.st_mode & kOthersRights) == 0);
    return S_ISREG(status.st_mode) && status.st_nlink == 1 && is_roots &&
           SizeOf(status) <= most_bytes;
  }

  base::Descriptor Create(const std::string& name, int flag) const {
    base::Descriptor file(
        openat(Get(), name.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | flag, kOwn));
    if (!file.IsOpen() || (at_.keeps_owners && fchmod(file.Get(), kOwn) != 0)) {
      Fail("make", name);
    }
    return file;
  }

  void LeaveToWriters(const std::string& name) const {
    const base::Descriptor file(
        openat(Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen()) {
      Fail("open", name);
    }
    if (IsBeingWritten(file.Get())) {
      CopyAndReplace(file.Get(), name);
    }
  }

  void CopyAndReplace(int from, const std::string& name) const {
    constexpr std::size_t kPieceBytes = 1 << 17;
    const std::string copy = name + kCopySuffix;
    Remove(copy);
    const base::Descriptor to = Create(copy, O_EXCL);
    const std::unique_ptr<char[]> buffer(new char[kPieceBytes]);
    struct stat status;
    // As much as there is now: the other one may go on for ever.
    std::uint64_t left = fstat(from, &status) == 0 ? SizeOf(status) : 0;
    for (std::uint64_t at = 0; left > 0;) {
      const std::int64_t count =
          base::ReadAt(from, buffer.get(),
                       static_cast<std::size_t>(std::min<std::uint64_t>(left, kPieceBytes)), at);
      if (count <= 0) {
        break;
      }
      const auto size = static_cast<std::size_t>(count);
      if (const int reason = base::WriteAll(to.Get(), buffer.get(), size); reason != 0) {
        Remove(copy);
        errno = reason;
        Fail("write", copy);
      }
      at += size;
      left -= size;
    }
    if (renameat(Get(), copy.c_str(), Get(), name.c_str()) != 0) {
      Fail("replace", name);
    }
  }

  PartialsDirectory at_;
};

// Oldest first: whatever is to go by its number is found at the beginning.
void RemoveBeyondCount(const Store& store, std::vector<Store::Entry> entries) {
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.grown < b.grown; });
  for (std::size_t i = 0; i + rules::kMostPartials < entries.size(); ++i) {
    store.Remove(entries[i].name);
  }
}

void Tidy(const Store& store) {
  const std::optional<std::set<std::string>> named = SignedDigests();
  const std::int64_t now = std::time(nullptr);
  std::vector<Store::Entry> left;
  for (Store::Entry& entry : store.List()) {
    const bool is_named = !named || named->count(entry.name) != 0;
    if (!is_named || now - entry.grown > rules::kPartialSeconds) {
      store.Remove(entry.name);
    } else {
      left.push_back(std::move(entry));
    }
  }
  RemoveBeyondCount(store, std::move(left));
  store.RemoveIfEmpty();
}

// All but that one.
void RemoveAll(const Store& store, const std::string& except) {
  for (const Store::Entry& entry : store.List()) {
    if (entry.name != except) {
      store.Remove(entry.name);
    }
  }
  store.RemoveIfEmpty();
}

void RemoveFile(const std::string& file) {
  std::error_code ignored;
  fs::remove(file, ignored);
}

}  // namespace

// ---- One download ----

PartialDownload::PartialDownload(const std::string& link, const std::string& file) noexcept
    : file_(file) {
  Noting([&] {
    const OwnGround* const ground = OwnGround::InForce();
    if (ground != nullptr && !ground->volume().empty() && ground->IsTemporary(file) &&
        !IsTakenFromDirectory()) {
      offered_ = SignedPackage(link);
    }
    if (offered_ && offered_->bytes < rules::kLeastPartialBytes) {
      offered_.reset();
    }
    // The description may be another one than when the operation began.
    if (const std::optional<Store> store = Store::OfOperation(false); store && offered_) {
      Tidy(*store);
    }
  });
  Attach();
}

PartialDownload::~PartialDownload() {
  if (!IsKept() || is_complete_) {
    return;
  }
  Noting([this] {
    Keep();
    const std::optional<Store> store = Store::OfOperation(false);
    if (!store) {
      return;
    }
    struct stat status;
    if (fstatat(store->Get(), offered_->sha384.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        SizeOf(status) > 0) {
      store->Sync(offered_->sha384);
    } else {
      store->Remove(offered_->sha384);
      store->RemoveIfEmpty();
    }
  });
}

std::uint64_t PartialDownload::Received() const noexcept {
  struct stat status;
  return lstat(file_.c_str(), &status) == 0 ? SizeOf(status) : 0;
}

bool PartialDownload::IsWhole(const std::function<void()>& step) const {
  return DifferenceOf(file_, *offered_, step).empty();
}

// Where a file can have one name only, it is moved here and, unless this process is killed, back.
void PartialDownload::Attach() noexcept {
  is_linked_ = false;
  if (!IsKept()) {
    return;
  }
  Noting([this] {
    const std::optional<Store> store = Store::OfOperation(true);
    const std::string& name = offered_->sha384;
    store->MakeUsable(name, offered_->bytes);
    RemoveFile(file_);
    is_linked_ = linkat(store->Get(), name.c_str(), AT_FDCWD, file_.c_str(), 0) == 0;
    if (!is_linked_ && renameat(store->Get(), name.c_str(), AT_FDCWD, file_.c_str()) != 0) {
      throw base::FileError(errno, "go on with", name);
    }
  });
}

// Puts what was received apart from the kept file into its place, where it is more.
void PartialDownload::Keep() noexcept {
  if (!IsKept() || is_linked_) {
    return;
  }
  Noting([this] {
    const std::optional<Store> store = Store::OfOperation(true);
    const std::string& name = offered_->sha384;
    const std::uint64_t received = Received();
    if (received == 0 || received <= store->Look(name, offered_->bytes).value_or(0)) {
      return;
    }
    store->Take(file_, name);
  });
}

void PartialDownload::BeginAnew() noexcept {
  if (!IsKept()) {
    return;
  }
  const std::string directory = fs::path(file_).parent_path();
  if (is_linked_ && RoomIn(directory).value_or(0) < offered_->bytes) {
    Forget();
    return;
  }
  RemoveFile(file_);
  is_linked_ = false;
}

void PartialDownload::Forget() noexcept {
  if (!IsKept()) {
    return;
  }
  is_complete_ = false;
  Noting([this] {
    RemoveFile(file_);
    if (const std::optional<Store> store = Store::OfOperation(false)) {
      store->Remove(offered_->sha384);
    }
  });
  Attach();
}

void PartialDownload::Settle() noexcept {
  if (IsKept() && !is_linked_ && !is_complete_) {
    Keep();
    Attach();
  }
}

void PartialDownload::Complete() noexcept {
  if (!IsKept()) {
    return;
  }
  is_complete_ = true;
  Noting([this] {
    if (const std::optional<Store> store = Store::OfOperation(false)) {
      store->Remove(offered_->sha384);
      store->RemoveIfEmpty();
    }
  });
}

// ---- All of them ----

std::uint64_t KeptBytesOf(const std::string& link) noexcept {
  std::uint64_t bytes = 0;
  Noting([&] {
    const std::optional<Store> store = Store::OfOperation(false);
    if (store && !IsTakenFromDirectory()) {
      if (const std::optional<OfferedPackage> offered = SignedPackage(link)) {
        bytes = store->Look(offered->sha384, offered->bytes).value_or(0);
      }
    }
  });
  return bytes;
}

void RemoveOtherPartials(const std::string& link) noexcept {
  Noting([&] {
    if (const std::optional<Store> store = Store::OfOperation(false)) {
      const std::optional<OfferedPackage> offered = SignedPackage(link);
      RemoveAll(*store, offered ? offered->sha384 : "");
    }
  });
}

void MakeRoomToUnpack(const std::string& package) noexcept {
  Noting([&] {
    std::error_code ignored;
    const std::uint64_t bytes = fs::file_size(package, ignored);
    const std::optional<Store> store = Store::OfOperation(false);
    if (store &&
        RoomIn(fs::path(package).parent_path()).value_or(0) / rules::kRoomToUnpack < bytes) {
      RemoveAll(*store, "");
    }
  });
}

void TidyPartials() noexcept {
  Noting([] {
    if (const std::optional<Store> store = Store::OfOperation(false)) {
      if (RoomIn(OwnGround::InForce()->volume()).value_or(1) == 0) {
        RemoveAll(*store, "");
      } else {
        Tidy(*store);
      }
    }
  });
}

void RemovePartialsOf(const std::string& volume) noexcept {
  Noting([&] {
    if (const std::optional<Store> store = Store::Enter(volume, false)) {
      RemoveAll(*store, "");
    }
  });
}

}  // namespace tolm::operation
