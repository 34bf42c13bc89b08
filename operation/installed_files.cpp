#include "operation/installed_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include "base/digest.h"
#include "dataupdate/update.h"
#include "operation/service.h"

namespace tolm::operation {
namespace {

using dataupdate::FileStatus;
using Step = std::function<void()>;

const Step kNoStep = [] {};
// Makes the next examination look at every file.
constexpr std::uint64_t kNoFingerprint = 0;

bool IsRecorded(const TreeFile& file) {
  return S_ISREG(file.mode) || S_ISLNK(file.mode);
}

bool IsUntouched(const TreeFile& then, const TreeFile& now) {
  return std::tie(then.mode, then.owner, then.size, then.modified_ns, then.changed_ns) ==
         std::tie(now.mode, now.owner, now.size, now.modified_ns, now.changed_ns);
}

// A file that a disk does not give to its end is to be put in its place anew, like an altered one.
std::string ProblemOfContent(const RecordedFile& recorded, const std::string& directory,
                             const Step& step) {
  try {
    return HasContentOf(recorded, directory, step) ? ""
                                                   : recorded.seen.name + " has another content";
  } catch (const std::system_error& error) {
    return error.what();
  }
}

// Empty when there is none.
std::string ProblemOf(const RecordedFile& recorded, const TreeFile* now,
                      const std::string& directory, const Step& step) {
  const TreeFile& then = recorded.seen;
  if (now == nullptr) {
    return then.name + " is missing";
  }
  if ((now->mode & S_IFMT) != (then.mode & S_IFMT)) {
    return then.name + " is of another type";
  }
  const std::string rights = ProblemOfRights(then, *now);
  if (!rights.empty()) {
    return then.name + ' ' + rights;
  }
  if (now->size != then.size) {
    return then.name + " has another size";
  }
  return IsUntouched(then, *now) ? "" : ProblemOfContent(recorded, directory, step);
}

std::string FirstProblem(const InstalledRecord& record, const InstalledTree& tree,
                         const std::string& directory, const Step& step) {
  for (const auto& [name, file] : record.files) {
    std::string problem = ProblemOf(file, Find(tree, name), directory, step);
    if (!problem.empty()) {
      return problem;
    }
  }
  return "";
}

// Most are, and taking a path apart costs more than all else that is done with a name.
bool IsPlain(const std::string& name) {
  for (std::size_t begin = 0; begin <= name.size();) {
    const std::size_t end = std::min(name.find('/', begin), name.size());
    const std::string_view part(name.data() + begin, end - begin);
    if (part.empty() || part == "." || part == "..") {
      return false;
    }
    begin = end + 1;
  }
  return true;
}

// What is known of files by their names, which may be in the form that deltas give them. Nothing is
// kept twice of those that are not.
class DigestsByPlainName {
 public:
  // They must outlive this object.
  explicit DigestsByPlainName(const std::map<std::string, FileStatus>& statuses)
      : statuses_(statuses) {
    for (const auto& [name, status] : statuses) {
      if (!IsPlain(name)) {
        others_[PlainName(name)] = &status;
      }
    }
  }

  // Null when nothing is.
  const FileStatus* Find(const std::string& name) const {
    if (const auto status = statuses_.find(name); status != statuses_.end()) {
      return &status->second;
    }
    const auto other = others_.find(name);
    return other == others_.end() ? nullptr : other->second;
  }

 private:
  const std::map<std::string, FileStatus>& statuses_;
  std::map<std::string, const FileStatus*> others_;
};

// Null for none.
RecordedFile* FindIn(std::optional<InstalledRecord>& record, const std::string& name) {
  if (!record) {
    return nullptr;
  }
  const auto found = record->files.find(name);
  return found == record->files.end() ? nullptr : &found->second;
}

// The library takes the digest of nothing for that of a file which it could not open.
void RequireRead(const TreeFile& file, const FileStatus& status) {
  static const std::string of_nothing = base::Sha384().Hex();
  if (S_ISREG(file.mode) && file.size != 0 && status.sha384_digest == of_nothing) {
    throw std::runtime_error(file.name + " cannot be read; what was installed is not recorded");
  }
}

// Mostly in the order of the names.
void Add(InstalledRecord& record, RecordedFile file) {
  std::string name = file.seen.name;
  record.files.insert_or_assign(record.files.end(), std::move(name), std::move(file));
}

void Write(const std::string& name, InstalledRecord& record, std::uint64_t fingerprint) {
  record.version_file = VersionFileDigest(name);
  record.fingerprint = fingerprint;
  WriteRecord(name, record);
}

// The record is right but for its times.
void Refresh(const std::string& name, InstalledRecord& record, const InstalledTree& tree) {
  for (auto& [file_name, file] : record.files) {
    file.seen = *Find(tree, file_name);
  }
  Write(name, record, tree.fingerprint);
}

std::map<std::string, std::string> ByPlainName(const std::map<std::string, FileStatus>& statuses) {
  std::map<std::string, std::string> digests;
  for (const auto& [name, status] : statuses) {
    digests[PlainName(name)] = status.sha384_digest;
  }
  return digests;
}

// What an earlier release or another program has installed.
std::string Adopt(const std::string& name, const std::string& directory,
                  const dataupdate::DatabaseStatus& installed, const Step& step) {
  if (installed.data_version == kNeverInstalled) {
    return "";
  }
  const InstalledTree tree = LookAt(directory);
  InstalledRecord record;
  record.version = installed.data_version;
  for (const TreeFile& file : tree.files) {
    if (IsRecorded(file)) {
      record.files[file.name] = {file, DigestOf(directory, file, step)};
    }
  }
  if (record.files.empty()) {
    return "no file of it is there";
  }
  for (const auto& [file, digest] : ByPlainName(installed.file_statuses)) {
    const auto found = record.files.find(file);
    if (found == record.files.end() || found->second.sha384 != digest) {
      return file + (found == record.files.end() ? " is missing" : " has another content");
    }
  }
  Write(name, record, tree.fingerprint);
  return "";
}

// What cannot be read is replaced, and compared with nothing.
std::string ProblemOf(const std::string& name, const std::string& directory, const Step& step) {
  std::optional<InstalledRecord> record;
  try {
    record = ReadRecord(name);
  } catch (const std::exception& error) {
    return error.what();
  }
  if (!record) {
    return "installed.json is damaged";
  }
  const InstalledTree tree = LookAt(directory);
  std::string problem = FirstProblem(*record, tree, directory, step);
  if (problem.empty()) {
    Refresh(name, *record, tree);
  }
  return problem;
}

}  // namespace

std::string ModeText(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%o", static_cast<unsigned int>(mode & 07777));
  return text;
}

std::string ProblemOfRights(const TreeFile& then, const TreeFile& now) {
  constexpr mode_t kRunsAsOwner = S_ISUID | S_ISGID;
  if (now.owner != then.owner) {
    return "belongs to user " + std::to_string(now.owner);
  }
  return S_ISREG(now.mode) && (now.mode & ~then.mode & kRunsAsOwner) != 0
             ? "has the mode " + ModeText(now.mode) + " in place of " + ModeText(then.mode)
             : "";
}

std::string PlainName(const std::string& name) {
  if (IsPlain(name)) {
    return name;
  }
  const std::size_t start = name.find_first_not_of('/');
  return start == std::string::npos
             ? ""
             : std::filesystem::path(name.substr(start)).lexically_normal().string();
}

bool HasContentOf(const RecordedFile& file, const std::string& directory, const Step& step) {
  return DigestOf(directory, file.seen, step) == file.sha384;
}

Glance GlanceAt(const std::string& name, const std::string& directory) {
  const InstalledTree tree = GlanceAtTree(directory);
  const RecordHead head = ReadRecordHead(name);
  return {tree.fingerprint, tree.is_open,
          head.state == RecordState::kCurrent && head.fingerprint == tree.fingerprint &&
              head.fingerprint != kNoFingerprint};
}

std::string Examine(const std::string& name, const std::string& directory,
                    const std::function<dataupdate::DatabaseStatus()>& installed,
                    const Step& step) {
  const RecordState state = ReadRecordHead(name).state;
  const bool is_unknown = state == RecordState::kMissing || state == RecordState::kOutdated;
  return is_unknown ? Adopt(name, directory, installed(), step) : ProblemOf(name, directory, step);
}

void RecordInstallation(const std::string& name, int version, const InstalledTree& tree,
                        const std::map<std::string, FileStatus>& digests,
                        std::optional<InstalledRecord> before) {
  const DigestsByPlainName put_in_place(digests);
  bool is_as_recorded = true;
  InstalledRecord record;
  record.version = version;
  for (const TreeFile& file : tree.files) {
    if (const FileStatus* const put = put_in_place.Find(file.name)) {
      RequireRead(file, *put);
      Add(record, {file, put->sha384_digest});
    } else if (RecordedFile* const earlier = FindIn(before, file.name)) {
      is_as_recorded = is_as_recorded && IsUntouched(earlier->seen, file);
      record.files.insert(record.files.end(), before->files.extract(file.name));
    }
  }
  Write(name, record, is_as_recorded ? tree.fingerprint : kNoFingerprint);
}

void RecordForcedInstallation(const std::string& name, const std::string& directory, int version,
                              const InstalledTree& tree, const InstalledTree& tree_before,
                              std::optional<InstalledRecord> before) {
  bool is_as_recorded = true;
  InstalledRecord record;
  record.version = version;
  for (const TreeFile& file : tree.files) {
    if (!IsRecorded(file)) {
      continue;
    }
    const TreeFile* const earlier = Find(tree_before, file.name);
    const bool is_untouched = earlier != nullptr && IsUntouched(*earlier, file);
    RecordedFile* const recorded = FindIn(before, file.name);
    RecordedFile now = is_untouched && recorded != nullptr
                           ? std::move(*recorded)
                           : RecordedFile{file, DigestOf(directory, file, kNoStep)};
    is_as_recorded = is_as_recorded && IsUntouched(now.seen, file);
    Add(record, std::move(now));
  }
  Write(name, record, is_as_recorded ? tree.fingerprint : kNoFingerprint);
}

}  // namespace tolm::operation
