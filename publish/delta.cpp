#include "publish/delta.h"

#include <fcntl.h>
#include <json/value.h>

#include <cerrno>
#include <filesystem>

#include "base/descriptor.h"
#include "package/encoder.h"
#include "package/error.h"
#include "package/file_io.h"
#include "publish/chain_rules.h"
#include "publish/file_copy.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/packed_size.h"
#include "publish/sqlite_file.h"
#include "publish/vcdiff_encoder.h"

namespace tolm::publish {
namespace {

using base::Descriptor;
using package::Code;

// A delta that says nothing but "take nothing from the source" is as long.
constexpr std::uint64_t kSmallestPatchBytes = 24;

class DeltaMaker {
 public:
  DeltaMaker(const DeltaRequest& request, const DeltaOptions& options)
      : request_(request), options_(options), meter_(options.packing) {}

  std::vector<FileDelta> Make(const DeltaProgress& progress) {
    RequireFitForChain(request_);
    MakeDirectories(request_.target_directory);
    const std::set<std::string> keys = TouchedKeys(request_.old_tree, request_.new_tree);
    digits_ = std::to_string(keys.size()).size();
    std::vector<FileDelta> deltas;
    for (const std::string& key : keys) {
      Report(progress, key, deltas.size(), keys.size());
      deltas.push_back(Add(key));
    }
    WriteDescription();
    Report(progress, "", keys.size(), keys.size());
    return deltas;
  }

 private:
  static void Report(const DeltaProgress& progress, const std::string& key, std::size_t done,
                     std::size_t total) {
    if (progress) {
      progress(key, done, total);
    }
  }

  static const TreeFile* Find(const Tree& tree, const std::string& key) {
    const auto found = tree.files.find(key);
    return found == tree.files.end() ? nullptr : &found->second;
  }

  FileDelta Add(const std::string& key) {
    ++number_;
    const TreeFile* before = Find(request_.old_tree, key);
    const TreeFile* after = Find(request_.new_tree, key);
    FileDelta delta;
    delta.key = key;
    if (after == nullptr) {
      delta.kind = FileDeltaKind::kDeleted;
      description_[key]["operation"] = "delete";
      return delta;
    }
    delta.file_bytes = after->size_bytes;
    if (before == nullptr) {
      delta.kind = FileDeltaKind::kCreated;
    } else {
      TryPatch(*before, *after, delta);
    }
    if (delta.kind == FileDeltaKind::kCreated || delta.kind == FileDeltaKind::kWhole) {
      SendWhole(*after, delta);
    }
    return delta;
  }

  std::string InputName(const char* extension) const {
    const std::string number = std::to_string(number_);
    return std::string(digits_ - number.size(), '0') + number + extension;
  }

  std::string InputPath(const std::string& name) const {
    return request_.target_directory + "/" + name;
  }

  void SendWhole(const TreeFile& after, FileDelta& delta) {
    const std::string name = InputName("");
    LinkOrCopyFile(after.path, InputPath(name));
    Describe(delta, "create", name);
  }

  void Describe(FileDelta& delta, const char* operation, const std::string& name) {
    delta.bytes = std::filesystem::file_size(InputPath(name));
    description_[delta.key]["operation"] = operation;
    description_[delta.key]["input_file"] = name;
  }

  // Leaves the delta's kind at kWhole, with a note, unless a patch is smaller.
  void TryPatch(const TreeFile& before, const TreeFile& after, FileDelta& delta) {
    const bool was_sqlite = IsSqliteFile(before.path);
    const bool is_sqlite = IsSqliteFile(after.path);
    if (request_.keys_to_send_whole.count(delta.key) != 0) {
      delta.note = "its patch was found wrong when it was replayed";
    } else if (!CanBePatched(delta.key)) {
      delta.note = "its name is too long for the work files of a patch";
    } else if (was_sqlite != is_sqlite) {
      delta.note = was_sqlite ? "is no SQLite file any more" : "was no SQLite file before";
    } else if (is_sqlite) {
      TrySql(before, after, delta);
    } else if (before.size_bytes == 0 || after.size_bytes <= kSmallestPatchBytes) {
      delta.note = "too small for a patch";
    } else {
      TryVcdiff(before, after, delta);
    }
  }

  void TrySql(const TreeFile& before, const TreeFile& after, FileDelta& delta) {
    const std::string name = InputName(".sqlitediff");
    const std::optional<std::string> declined =
        MakeSqlDelta(before.path, after.path, InputPath(name), {options_.oldest_sqlite_version});
    if (declined) {
      delta.note = *declined;
    } else {
      TakeIfSmaller(FileDeltaKind::kSql, name, after, delta);
    }
  }

  void TryVcdiff(const TreeFile& before, const TreeFile& after, FileDelta& delta) {
    const std::string name = InputName(".vcdiff");
    const std::uint64_t window = SourceWindowBytes(before.size_bytes, options_.memory_limit_bytes);
    EncodeVcdiff(before.path, after.path, InputPath(name), window);
    if (window < before.size_bytes) {
      delta.note =
          "the old file is larger than the source window of " + std::to_string(window) + " bytes";
    }
    TakeIfSmaller(FileDeltaKind::kVcdiff, name, after, delta);
  }

  // The complete file needs to be compressed only until it is certain to be larger.
  void TakeIfSmaller(FileDeltaKind kind, const std::string& name, const TreeFile& after,
                     FileDelta& delta) {
    const package::Effort effort = package::EffortFor(std::filesystem::file_size(InputPath(name)));
    const std::uint64_t patch = *meter_.Measure(InputPath(name), effort);
    const std::optional<std::uint64_t> whole = meter_.Measure(after.path, effort, patch);
    if (whole) {
      delta.packed_bytes = whole;
      delta.note = std::string("not larger than its ") + FileDeltaKindText(kind) + " patch of " +
                   std::to_string(patch) + " bytes";
      RemoveTree(InputPath(name));
      return;
    }
    delta.kind = kind;
    delta.packed_bytes = patch;
    Describe(delta, "update", name);
  }

  void WriteDescription() const {
    const std::string path = InputPath("patch_infos.json");
    const std::string text = FormatJson(description_);
    Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!file.IsOpen()) {
      throw package::WriteError(path, errno);
    }
    package::WriteAll(file.Get(), text.data(), text.size(), path);
    if (const int reason = file.Close(); reason != 0) {
      throw package::WriteError(path, reason);
    }
  }

  const DeltaRequest& request_;
  const DeltaOptions& options_;
  PackedSizeMeter meter_;
  Json::Value description_{Json::objectValue};
  std::size_t number_ = 0;  // of the file that is being added
  std::size_t digits_ = 0;
};

}  // namespace

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

std::vector<FileDelta> MakeDelta(const DeltaRequest& request, const DeltaOptions& options,
                                 const DeltaProgress& progress) {
  return DeltaMaker(request, options).Make(progress);
}

std::set<std::string> DirectoriesOf(const Tree& tree) {
  std::set<std::string> directories;
  for (const auto& entry : tree.files) {
    for (std::size_t end = entry.first.rfind('/'); end != 0 && end != std::string::npos;
         end = entry.first.rfind('/', end - 1)) {
      if (!directories.insert(entry.first.substr(0, end)).second) {
        break;  // and so are those above it
      }
    }
  }
  return directories;
}

}  // namespace tolm::publish
