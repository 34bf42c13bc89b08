#include "operation/verification.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/format.hpp>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/parallel.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "operation/bounded_downloads.h"
#include "operation/description_reader.h"
#include "operation/directory_types.h"
#include "operation/events.h"
#include "operation/file_digest.h"
#include "operation/installed_files.h"
#include "operation/installed_record.h"
#include "operation/installed_tree.h"
#include "operation/interrupt.h"
#include "operation/interruptible_lock.h"
#include "operation/last_verification.h"
#include "operation/lock_files.h"
#include "operation/lock_holder.h"
#include "operation/offered_package.h"
#include "operation/own_ground.h"
#include "operation/platform_calls.h"
#include "operation/recovery.h"
#include "operation/run.h"
#include "operation/settings_check.h"
#include "operation/survey.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::FileLock;
using dataupdate::IOUtils;
using dataupdate::NoexceptFormat;

constexpr char kDiffers[] = "content differs";

// No operation on the database begins or goes on while this is held.
class OperationLocks {
 public:
  explicit OperationLocks(const std::string& name)
      : operator_lock_(InterruptibleLock(paths::kOperatorLock)),
        any_lock_(InterruptibleLock(paths::kUpdateAnyLock)),
        database_lock_(InterruptibleLock((NoexceptFormat(paths::kUpdateLock) % name).str())) {}

 private:
  FileLock operator_lock_;
  FileLock any_lock_;
  FileLock database_lock_;
};

std::vector<std::string> OperationLocksOf(const std::string& name) {
  return {paths::kOperatorLock, paths::kUpdateAnyLock,
          (NoexceptFormat(paths::kUpdateLock) % name).str()};
}

bool IsOperating(const std::string& name) {
  const std::vector<std::string> locks = OperationLocksOf(name);
  return std::any_of(locks.begin(), locks.end(), IsHeld);
}

// What an operation changes: version.json, which is written in place, and the recovery mark.
class Record {
 public:
  explicit Record(const std::string& name)
      : version_file_(StatusOf((NoexceptFormat(paths::kVersionFile) % name).str())),
        is_marked_(fs::exists(RecoveryMarkPath(name))) {}

  bool operator==(const Record& other) const {
    return version_file_ == other.version_file_ && is_marked_ == other.is_marked_;
  }

 private:
  using Status = std::vector<std::int64_t>;

  static Status StatusOf(const std::string& file) {
    struct stat status;
    if (stat(file.c_str(), &status) != 0) {
      return {};
    }
    return {static_cast<std::int64_t>(status.st_ino), status.st_size, status.st_ctim.tv_sec,
            status.st_ctim.tv_nsec};
  }

  Status version_file_;
  bool is_marked_;
};

// Who may not take the locks waits for operations to end, and finds out afterwards whether one has
// begun.
class WatchedOperations {
 public:
  explicit WatchedOperations(const std::string& name) : name_(name), before_(WaitForEnd(name)) {}

  void RequireNone() const {
    if (IsOperating(name_) || !(Record(name_) == before_)) {
      throw std::runtime_error(
          "an operation has begun meanwhile; what was seen counts for nothing");
    }
  }

 private:
  static Record WaitForEnd(const std::string& name) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(rules::kLockWaitSeconds);
    while (true) {
      if (!IsOperating(name)) {
        return Record(name);
      }
      if (Interrupt::Received() != 0) {
        throw Interrupted();
      }
      if (std::chrono::steady_clock::now() >= deadline) {
        throw std::runtime_error("an operation is running");
      }
      usleep(rules::kLockPollMicroseconds);
    }
  }

  std::string name_;
  Record before_;
};

// Without the volume all files would be missing.
bool IsOnVolume(const Service& service, const std::string& name) {
  return service.config->GetDatabaseConfig(name)->GetRootDirectory() != "/";
}

void RequireKnownTypes(const Service& service, const std::string& name) {
  RequireTypes(service.config->GetCurVolume());
  RequireTypes(service.config->GetDatabaseConfig(name)->GetInstallPrefix());
}

using Names = std::vector<std::string>;

// Relative names of everything that a person would call a file, sorted. A missing directory holds
// none.
Names FilesBelow(const std::string& directory) {
  InstalledTree tree = LookAt(directory);
  Names files;
  files.reserve(tree.files.size());
  for (TreeFile& file : tree.files) {
    files.push_back(std::move(file.name));
  }
  return files;
}

// What deltas have touched is recorded with a "/" in front.
std::string WithoutLeadingSlash(const std::string& name) {
  const std::size_t start = name.find_first_not_of('/');
  return start == std::string::npos ? "" : name.substr(start);
}

// Relative names, each with the digests that it may have.
using Expected = std::map<std::string, std::set<std::string>>;

std::string Digest(const std::string& file) {
  return FileDigest(file, EndWhenInterrupted);
}

bool IsOfNothing(const std::error_code& reason) {
  return reason == std::errc::no_such_file_or_directory || reason == std::errc::not_a_directory;
}

// Empty when there is none. What nobody but root may read is no damage: it cannot be known.
template <typename IsExpected>
std::string ProblemOf(const std::string& file, IsExpected is_expected) {
  EndWhenInterrupted();
  try {
    return is_expected(Digest(file)) ? "" : kDiffers;
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::permission_denied) {
      throw std::runtime_error(file + ": " + error.code().message());
    }
    return IsOfNothing(error.code()) ? "missing" : "cannot be read: " + error.code().message();
  } catch (const NotARegularFile& error) {
    return error.what();
  }
}

// Of more files at a time a disk is none the quicker.
constexpr int kMostAtATime = 4;
// So many small ones are looked at before the next are taken.
constexpr std::size_t kMostInARow = 64;

// What is wrong, by the number of the file; nothing of the others. Looks at several at a time, so
// `problem_of` has to be safe to run beside itself.
template <typename ProblemOfNumber>
std::map<std::size_t, std::string> ProblemsOf(std::size_t count, ProblemOfNumber problem_of) {
  const int jobs = std::min(base::DefaultJobs(), kMostAtATime);
  const std::size_t row =
      std::clamp(count / (8 * static_cast<std::size_t>(jobs)), std::size_t{1}, kMostInARow);
  std::mutex mutex;
  std::map<std::size_t, std::string> problems;
  base::ForEach((count + row - 1) / row, jobs, [&](std::size_t number) {
    for (std::size_t at = number * row; at < std::min((number + 1) * row, count); ++at) {
      std::string problem = problem_of(at);
      if (!problem.empty()) {
        const std::lock_guard<std::mutex> guard(mutex);
        problems[at] = std::move(problem);
      }
    }
  });
  return problems;
}

// How many of the expected files, which have a name each, are not among these.
template <typename Files>
std::size_t CountMissing(const Files& expected, const Names& files) {
  return static_cast<std::size_t>(
      std::count_if(expected.begin(), expected.end(), [&](const auto& file) {
        return !std::binary_search(files.begin(), files.end(), file.first);
      }));
}

Verification CheckFiles(const std::string& directory, int version, bool cut_short,
                        const Expected& expected) {
  Verification result{version, cut_short, expected.size(), 0, {}, {}, 0};
  const Names files = FilesBelow(directory);
  std::vector<const Expected::value_type*> list;
  list.reserve(expected.size());
  for (const Expected::value_type& file : expected) {
    list.push_back(&file);
  }
  const auto problem_of = [&](std::size_t number) {
    const auto& [file, digests] = *list[number];
    return ProblemOf(directory + '/' + file, [&all = digests](const std::string& digest) {
      return all.count(digest) != 0;
    });
  };
  for (auto& [number, problem] : ProblemsOf(list.size(), problem_of)) {
    result.damaged.push_back({list[number]->first, std::move(problem)});
  }
  result.installed_files = files.size() + CountMissing(expected, files);
  return result;
}

Expected RecordedFiles(const dataupdate::DatabaseStatus& status) {
  Expected expected;
  for (const auto& [name, file] : status.file_statuses) {
    expected[WithoutLeadingSlash(name)] = {file.sha384_digest};
  }
  return expected;
}

// What is wrong with its type or rights; empty for nothing. A missing one is said to be.
std::string ProblemOfKind(const TreeFile& then, const TreeFile* now) {
  if (now == nullptr) {
    return "";
  }
  return (now->mode & S_IFMT) != (then.mode & S_IFMT) ? "of another type"
                                                      : ProblemOfRights(then, *now);
}

// All files, links aside, by their contents; and whatever there is by its kind.
Verification CheckFiles(const std::string& directory, bool cut_short,
                        const InstalledRecord& record) {
  Verification result{record.version, cut_short, 0, 0, {}, {}, 0};
  const InstalledTree tree = LookAt(directory);
  result.installed_files = tree.files.size();
  std::vector<const RecordedFile*> with_content;
  std::vector<DamagedFile> of_other_kinds;
  for (const auto& [name, file] : record.files) {
    const TreeFile* const now = Find(tree, name);
    if (S_ISREG(file.seen.mode)) {
      with_content.push_back(&file);
      result.installed_files += now == nullptr ? 1 : 0;
    }
    if (std::string problem = ProblemOfKind(file.seen, now); !problem.empty()) {
      of_other_kinds.push_back({name, std::move(problem)});
    }
  }
  result.checked_files = with_content.size();
  const auto problem_of = [&](std::size_t number) {
    const RecordedFile& file = *with_content[number];
    return ProblemOf(directory + '/' + file.seen.name,
                     [&](const std::string& digest) { return digest == file.sha384; });
  };
  std::set<std::string> damaged;
  for (auto& [number, problem] : ProblemsOf(with_content.size(), problem_of)) {
    const std::string& name = with_content[number]->seen.name;
    damaged.insert(name);
    result.damaged.push_back({name, std::move(problem)});
  }
  for (DamagedFile& file : of_other_kinds) {
    if (damaged.count(file.file) == 0) {
      result.damaged.push_back(std::move(file));
    }
  }
  return result;
}

// A package unpacked in the volume's temporary directory, for as long as this lives.
class UnpackedPackage : public dataupdate::BaseStrategy {
 public:
  UnpackedPackage(OwnGround& ground, const std::string& volume, const std::string& name,
                  int version)
      : temporary_(ground.temporary()),
        // Under this name only the package of this database and version is accepted.
        package_(
            (NoexceptFormat(paths::kPackageFile) % volume % name % ("v" + std::to_string(version)))
                .str()),
        directory_((NoexceptFormat(paths::kUnpackedTree) % volume % name).str()) {
    ground.RemoveLeftOvers();  // What an operation that was killed has left is no part of it.
  }
  ~UnpackedPackage() override {
    std::error_code ignored;
    fs::remove_all(temporary_, ignored);
  }
  UnpackedPackage(const UnpackedPackage&) = delete;
  UnpackedPackage& operator=(const UnpackedPackage&) = delete;

  void Download(const std::string& link) const {
    IOUtils().TolmMkdir(directory_);
    IOUtils().Download(package_, link);
  }
  void Unpack() const { _ExtractTarballTo(package_, directory_); }

  Names Members() const { return FilesBelow(directory_); }
  /// The members that an installation puts in place: what links lead to are members themselves.
  Names Files() const {
    Names files;
    for (const std::string& file : Members()) {
      if (fs::is_regular_file(fs::symlink_status(Path(file)))) {
        files.push_back(file);
      }
    }
    return files;
  }
  std::string Path(const std::string& file) const { return directory_ + '/' + file; }

 private:
  std::string temporary_;
  std::string package_;
  std::string directory_;
};

// What an operation demands of a full package, where that version is the offered one.
class PackageDemands : public CallDemands {
 public:
  PackageDemands(const std::string& name, int version)
      : offered_(SignedPackagesIn(DescriptionReader().ReadJson(paths::kDatabaseInfo), name)),
        tag_('v' + std::to_string(version)) {}

  bool MayMake(const std::string&) override { return true; }
  std::string PathToOpen(const std::string& package) override { return package; }
  std::string DifferenceFromOffer(const std::string& package) override {
    const auto offered = offered_.find(tag_);
    return offered == offered_.end() ? ""
                                     : DifferenceOf(package, offered->second, EndWhenInterrupted);
  }
  bool Accepts(const std::string&) override { return true; }

 private:
  const OfferedPackages offered_;
  const std::string tag_;
};

std::string LinkOf(const Offer& offer, int version) {
  const std::string from = std::to_string(offer.version);
  const std::string to = std::to_string(version);
  std::string link = offer.link;
  for (std::size_t at = link.find(from); at != std::string::npos;
       at = link.find(from, at + to.size())) {
    link.replace(at, from.size(), to);
  }
  return link;
}

Names Missing(const Names& from, const Names& files) {
  Names missing;
  std::set_difference(files.begin(), files.end(), from.begin(), from.end(),
                      std::back_inserter(missing));
  return missing;
}

Expected PackagedFiles(const UnpackedPackage& package) {
  Expected expected;
  for (const std::string& file : package.Files()) {
    expected[file] = {Digest(package.Path(file))};
  }
  return expected;
}

bool IsSqliteFile(const std::string& file) {
  constexpr char kMagic[] = "SQLite format 3";  // With its NUL.
  char begin[sizeof kMagic] = {};
  std::ifstream(file, std::ios::binary).read(begin, sizeof begin);
  return std::memcmp(begin, kMagic, sizeof begin) == 0;
}

// A delta changes the rows of an SQLite file and leaves other bytes than the full package has. What
// it left is recorded.
void AcceptPatchedTables(const UnpackedPackage& package, const Expected& recorded,
                         Expected& expected) {
  for (auto& [file, digests] : expected) {
    const auto record = recorded.find(file);
    if (record != recorded.end() && IsSqliteFile(package.Path(file))) {
      digests.insert(record->second.begin(), record->second.end());
    }
  }
}

// What an earlier delta left is recorded no longer.
void ExplainPatchedTables(const UnpackedPackage& package, const Expected& recorded,
                          std::vector<DamagedFile>& damaged) {
  for (DamagedFile& file : damaged) {
    if (file.problem == kDiffers && recorded.count(file.file) == 0 &&
        IsSqliteFile(package.Path(file.file))) {
      file.problem += ", as an SQLite file also does after a delta";
    }
  }
}

// Under the locks, or as good as that. A record that there is belongs to version.json, which is
// large where there are many files and is not read then.
Verification CheckRecorded(const Service& service, const std::string& name) {
  const std::optional<InstalledRecord> record = ReadRecord(name);
  const dataupdate::DatabaseStatus status =
      record ? dataupdate::DatabaseStatus() : service.info->GetDatabaseStatus(name);
  const int version = record ? record->version : status.data_version;
  const bool cut_short = fs::exists(RecoveryMarkPath(name));
  if (version == kNeverInstalled) {
    return {kNeverInstalled, cut_short, 0, 0, {}, {}, 0};
  }
  RequireKnownTypes(service, name);
  const std::string directory = service.config->GetDatabaseConfig(name)->GetInstallPrefix();
  if (record) {
    return CheckFiles(directory, cut_short, *record);
  }
  Verification result = CheckFiles(directory, version, cut_short, RecordedFiles(status));
  result.not_compared = result.installed_files - result.checked_files;
  return result;
}

}  // namespace

Verification VerifyRecorded(const Service& service, const std::string& name) {
  RequireSoundSettings();
  service.config->CheckSupported(name);
  if (IsOnVolume(service, name)) {
    RequireVolume(service.config->GetCurVolume());
  }
  if (MayLock(paths::kOperatorLock)) {
    MakeLockFiles(*service.config);
    const OperationLocks locks(name);
    const Verification result = CheckRecorded(service, name);
    RememberVerification(name, result);
    TellDamage(name, result);
    return result;
  }
  const WatchedOperations operations(name);
  Verification result = CheckRecorded(service, name);
  operations.RequireNone();
  TellDamage(name, result);
  return result;
}

Verification VerifyAgainstPackage(const Service& service, const std::string& name) {
  RequireSoundSettings();
  service.config->CheckSupported(name);
  RequireVolume(service.config->GetCurVolume());
  MakeLockFiles(*service.config);
  const OperationLocks locks(name);
  const dataupdate::DatabaseStatus status = service.info->GetDatabaseStatus(name);
  const int version = status.data_version;
  const bool cut_short = fs::exists(RecoveryMarkPath(name));
  if (version == kNeverInstalled) {
    return {kNeverInstalled, cut_short, 0, 0, {}, {}, 0};
  }
  RequireKnownTypes(service, name);
  const std::string volume = service.config->GetCurVolume();
  const std::string directory = service.config->GetDatabaseConfig(name)->GetInstallPrefix();
  const Offer offer = Description::Fetch(service).OfferOf(name);
  OwnGround ground(volume, directory);
  const UnpackedPackage package(ground, volume, name, version);
  PackageDemands demands(name, version);
  const DemandedCalls demanded(demands);
  ground.Explaining([&] {
    WithBoundedDownloads([&] {
      package.Download(LinkOf(offer, version));
      package.Unpack();
    });
  });
  Expected expected = PackagedFiles(package);
  const Expected recorded = RecordedFiles(status);
  AcceptPatchedTables(package, recorded, expected);
  Verification result = CheckFiles(directory, version, cut_short, expected);
  ExplainPatchedTables(package, recorded, result.damaged);
  result.foreign = Missing(package.Members(), FilesBelow(directory));
  RememberVerification(name, result);
  TellDamage(name, result);
  return result;
}

}  // namespace tolm::operation
