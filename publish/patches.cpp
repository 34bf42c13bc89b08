#include "publish/patches.h"

#include <algorithm>
#include <filesystem>

#include "base/parallel.h"
#include "package/encoder.h"
#include "publish/chain_rules.h"
#include "publish/file_copy.h"
#include "publish/files.h"
#include "publish/likeness.h"
#include "publish/small_vcdiff.h"
#include "publish/sqlite_file.h"
#include "publish/vcdiff_encoder.h"

namespace tolm::publish {
namespace {

// A delta that says nothing but "take nothing from the source" is as long.
constexpr std::uint64_t kSmallestPatchBytes = 24;

// An encoder is done with a smaller file as soon as a look at it would be.
constexpr std::uint64_t kLookedAtBytes = std::uint64_t{1} << 20;
// Of the compressed file. The encoder takes seconds for each MiB in which it finds nothing.
constexpr double kLeastWorthwhile = 0.04;

// What comparing two SQLite files takes at most, about.
constexpr std::uint64_t kSqlMemoryBytes = std::uint64_t{64} * 1024 * 1024;

struct Work {
  std::string key;
  const TreeFile* before = nullptr;  // both null when there is nothing to be made
  const TreeFile* after = nullptr;

  std::uint64_t Size() const { return after == nullptr ? 0 : after->size_bytes; }
};

std::vector<Work> WorkBetween(const Tree& before, const Tree& after,
                              const std::set<std::string>& but, const Patches& patches) {
  std::vector<Work> list;
  for (const std::string& key : TouchedKeys(before, after)) {
    const auto old_file = before.files.find(key);
    const auto new_file = after.files.find(key);
    if (old_file == before.files.end() || new_file == after.files.end() || but.count(key) != 0) {
      list.push_back({key});
    } else if (!patches.Has(old_file->second, new_file->second)) {
      list.push_back({key, &old_file->second, &new_file->second});
    }
  }
  std::stable_sort(list.begin(), list.end(),
                   [](const Work& left, const Work& right) { return left.Size() > right.Size(); });
  return list;
}

}  // namespace

std::uint64_t EncoderMemoryBytes(std::uint64_t memory_limit_bytes) {
  return VcdiffMemoryBytes(SourceWindowBytes(memory_limit_bytes, memory_limit_bytes));
}

const char* FileDeltaKindText(FileDeltaKind kind) {
  switch (kind) {
    case FileDeltaKind::kCreated:
      return "created";
    case FileDeltaKind::kWhole:
      return "whole";
    case FileDeltaKind::kVcdiff:
      return "vcdiff";
    case FileDeltaKind::kSql:
      return "sql";
    case FileDeltaKind::kDeleted:
      return "deleted";
  }
  return "";
}

bool IsPatch(const FileDelta& file) {
  return file.kind == FileDeltaKind::kVcdiff || file.kind == FileDeltaKind::kSql;
}

Patches::Patches(std::string directory, const DeltaOptions& options, WorkBudget& budget)
    : directory_(std::move(directory)), options_(options), budget_(budget) {}

Patch Patches::Get(const TreeFile& before, const TreeFile& after) {
  const Pair pair(before.sha384, after.sha384);
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto found = made_.find(after.key);
    if (found != made_.end() && found->second.first == pair) {
      return found->second.second;
    }
  }
  Forget(after.key);
  Patch patch = Make(before, after);
  const std::lock_guard<std::mutex> guard(mutex_);
  made_[after.key] = {pair, patch};
  return patch;
}

bool Patches::Has(const TreeFile& before, const TreeFile& after) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = made_.find(after.key);
  return found != made_.end() && found->second.first == Pair(before.sha384, after.sha384);
}

void Patches::Forget(const std::string& key) {
  std::string path;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto found = made_.find(key);
    if (found == made_.end()) {
      return;
    }
    path = found->second.second.path;
    made_.erase(found);
  }
  if (!path.empty()) {
    RemoveTree(path);
  }
}

void Patches::Clear() {
  const std::lock_guard<std::mutex> guard(mutex_);
  made_.clear();
  number_ = 0;
  RemoveTree(directory_);
}

std::string Patches::NewPath(const char* extension) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (number_ == 0) {
    MakeDirectories(directory_);
  }
  return directory_ + '/' + std::to_string(number_++) + extension;
}

Patch Patches::Make(const TreeFile& before, const TreeFile& after) {
  Patch patch;
  FileDelta& delta = patch.delta;
  delta.key = after.key;
  delta.file_bytes = after.size_bytes;
  const bool was_sqlite = IsSqliteFile(before.path);
  const bool is_sqlite = IsSqliteFile(after.path);
  if (!CanBePatched(delta.key)) {
    delta.note = "its name is too long for the work files of a patch";
  } else if (was_sqlite != is_sqlite) {
    delta.note = was_sqlite ? "is no SQLite file any more" : "was no SQLite file before";
  } else if (is_sqlite) {
    TrySql(before, after, patch);
  } else if (before.size_bytes == 0 || after.size_bytes <= kSmallestPatchBytes) {
    delta.note = "too small for a patch";
  } else {
    TryVcdiff(before, after, patch);
  }
  return patch;
}

void Patches::TrySql(const TreeFile& before, const TreeFile& after, Patch& patch) {
  const WorkBudget::Share share(budget_, std::max(kSqlMemoryBytes, MeterBytes(after)));
  const std::string path = NewPath(".sqlitediff");
  const std::optional<std::string> declined =
      MakeSqlDelta(before.path, after.path, path, {options_.oldest_sqlite_version});
  if (declined) {
    patch.delta.note = *declined;
  } else {
    TakeIfSmaller(FileDeltaKind::kSql, path, after, patch);
  }
}

void Patches::TryVcdiff(const TreeFile& before, const TreeFile& after, Patch& patch) {
  if (after.size_bytes >= kLookedAtBytes && IsHopeless(before, after)) {
    patch.delta.note = "has next to nothing in common with the old file";
    return;
  }
  const std::string path = NewPath(".vcdiff");
  if (std::max(before.size_bytes, after.size_bytes) <= kMostSmallVcdiffBytes) {
    const WorkBudget::Share share(budget_, MeterBytes(after));
    WriteNewFile(path, EncodeSmallVcdiff(ReadWholeFile(before.path), ReadWholeFile(after.path)));
    TakeIfSmaller(FileDeltaKind::kVcdiff, path, after, patch);
    return;
  }
  const std::uint64_t window = SourceWindowBytes(before.size_bytes, options_.memory_limit_bytes);
  const WorkBudget::Share share(budget_, std::max(VcdiffMemoryBytes(window), MeterBytes(after)));
  EncodeVcdiff(before.path, after.path, path, window);
  if (window < before.size_bytes) {
    patch.delta.note =
        "the old file is larger than the source window of " + std::to_string(window) + " bytes";
  }
  TakeIfSmaller(FileDeltaKind::kVcdiff, path, after, patch);
}

// Patches are measured, too, and hardly larger than the file.
std::uint64_t Patches::MeterBytes(const TreeFile& after) const {
  return PackedSizeMeter::MemoryBytes(options_.packing, after.size_bytes);
}

bool Patches::IsHopeless(const TreeFile& before, const TreeFile& after) {
  const WorkBudget::Share share(budget_, 0);
  return MostThatADeltaSaves(before.path, after.path) < kLeastWorthwhile;
}

// The complete file needs to be compressed only until it is certain to be larger.
void Patches::TakeIfSmaller(FileDeltaKind kind, const std::string& path, const TreeFile& after,
                            Patch& patch) {
  FileDelta& delta = patch.delta;
  PackedSizeMeter meter(options_.packing);
  const std::uint64_t bytes = std::filesystem::file_size(path);
  const package::Effort effort = package::EffortFor(bytes);
  const std::uint64_t packed = *meter.Measure(path, effort);
  const std::optional<std::uint64_t> whole = meter.Measure(after.path, effort, packed);
  if (whole) {
    delta.packed_bytes = whole;
    delta.note = std::string("not larger than its ") + FileDeltaKindText(kind) + " patch of " +
                 std::to_string(packed) + " bytes";
    RemoveTree(path);
    return;
  }
  delta.kind = kind;
  delta.bytes = bytes;
  delta.packed_bytes = packed;
  patch.path = path;
}

void MakePatches(const Tree& before, const Tree& after, const std::set<std::string>& but,
                 Patches& patches, int jobs, const DeltaProgress& progress) {
  const std::vector<Work> list = WorkBetween(before, after, but, patches);
  const std::size_t total = TouchedKeys(before, after).size();
  std::mutex mutex;
  std::size_t done = total - list.size();
  const auto report = [&](const std::string& key) {
    if (progress) {
      const std::lock_guard<std::mutex> guard(mutex);
      progress(key, done, total);
    }
  };
  base::ForEach(list.size(), jobs, [&](std::size_t turn) {
    const Work& work = list[turn];
    report(work.key);
    if (work.after != nullptr) {
      patches.Get(*work.before, *work.after);
    }
    const std::lock_guard<std::mutex> guard(mutex);
    ++done;
  });
  report("");
}

}  // namespace tolm::publish
