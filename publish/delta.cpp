#include "publish/delta.h"

#include <json/value.h>

#include <filesystem>

#include "publish/chain_rules.h"
#include "publish/file_copy.h"
#include "publish/files.h"
#include "publish/json_object.h"

namespace tolm::publish {
namespace {

const TreeFile* Find(const Tree& tree, const std::string& key) {
  const auto found = tree.files.find(key);
  return found == tree.files.end() ? nullptr : &found->second;
}

const char* ExtensionOf(FileDeltaKind kind) {
  return kind == FileDeltaKind::kVcdiff ? ".vcdiff"
         : kind == FileDeltaKind::kSql  ? ".sqlitediff"
                                        : "";
}

class DeltaMaker {
 public:
  DeltaMaker(const DeltaRequest& request, Patches& patches)
      : request_(request), patches_(patches) {}

  std::vector<FileDelta> Make(int jobs, const DeltaProgress& progress) {
    RequireFitForChain(request_);
    MakeDirectories(request_.target_directory);
    MakePatches(request_.old_tree, request_.new_tree, request_.keys_to_send_whole, patches_, jobs,
                progress);
    const std::set<std::string> keys = TouchedKeys(request_.old_tree, request_.new_tree);
    digits_ = std::to_string(keys.size()).size();
    std::vector<FileDelta> deltas;
    for (const std::string& key : keys) {
      deltas.push_back(Add(key));
    }
    WriteDescription();
    return deltas;
  }

 private:
  FileDelta Add(const std::string& key) {
    ++number_;
    const TreeFile* before = Find(request_.old_tree, key);
    const TreeFile* after = Find(request_.new_tree, key);
    if (after == nullptr) {
      FileDelta delta;
      delta.key = key;
      delta.kind = FileDeltaKind::kDeleted;
      description_[key]["operation"] = "delete";
      return delta;
    }
    Patch patch;
    patch.delta.key = key;
    patch.delta.file_bytes = after->size_bytes;
    if (before == nullptr) {
      patch.delta.kind = FileDeltaKind::kCreated;
    } else if (request_.keys_to_send_whole.count(key) != 0) {
      patch.delta.note = "its patch was found wrong when it was replayed";
    } else {
      patch = patches_.Get(*before, *after);
    }
    if (IsPatch(patch.delta)) {
      Put(patch.path, "update", patch.delta);
    } else {
      Put(after->path, "create", patch.delta);
    }
    return patch.delta;
  }

  void Put(const std::string& path, const char* operation, FileDelta& delta) {
    const std::string name = InputName(ExtensionOf(delta.kind));
    LinkOrCopyFile(path, InputPath(name));
    delta.bytes = std::filesystem::file_size(InputPath(name));
    description_[delta.key]["operation"] = operation;
    description_[delta.key]["input_file"] = name;
  }

  std::string InputName(const char* extension) const {
    const std::string number = std::to_string(number_);
    return std::string(digits_ - number.size(), '0') + number + extension;
  }

  std::string InputPath(const std::string& name) const {
    return request_.target_directory + "/" + name;
  }

  void WriteDescription() const {
    WriteNewFile(InputPath("patch_infos.json"), FormatJson(description_));
  }

  const DeltaRequest& request_;
  Patches& patches_;
  Json::Value description_{Json::objectValue};
  std::size_t number_ = 0;  // of the file that is being added
  std::size_t digits_ = 0;
};

}  // namespace

std::vector<FileDelta> MakeDelta(const DeltaRequest& request, Patches& patches, int jobs,
                                 const DeltaProgress& progress) {
  return DeltaMaker(request, patches).Make(jobs, progress);
}

std::vector<FileDelta> MakeDelta(const DeltaRequest& request, const DeltaOptions& options,
                                 const DeltaProgress& progress) {
  WorkBudget budget(options.jobs, EncoderMemoryBytes(options.memory_limit_bytes));
  Patches patches(request.target_directory + ".patches", options, budget);
  std::vector<FileDelta> deltas = MakeDelta(request, patches, options.jobs, progress);
  patches.Clear();
  return deltas;
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
