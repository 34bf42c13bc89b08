#include "publish/chain_rules.h"

#include <algorithm>
#include <climits>
#include <map>
#include <string_view>

namespace tolm::publish {
namespace {

constexpr std::string_view kLongestSideFile = ".patchout";
constexpr const char* kSqliteSideFiles[] = {"-journal", "-wal", "-shm"};

std::string WorkCopyName(const std::string& key) {
  std::string name = key;
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '/' || c == '.'; }, '_');
  return name;
}

using Keys = std::set<std::string>;
using KeysByName = std::map<std::string, Keys>;  // by the name of their work copy

KeysByName WorkCopies(const Keys& keys) {
  KeysByName copies;
  for (const std::string& key : keys) {
    const std::string name = WorkCopyName(key);
    if (name.size() > NAME_MAX) {
      throw NotInChain(key + ": devices work on a copy whose name would be too long", {key});
    }
    copies[name].insert(key);
  }
  return copies;
}

[[noreturn]] void ThrowShared(const std::string& key, const std::string& other) {
  throw NotInChain(key + " and " + other + " would share one work copy on devices", {key, other});
}

void RequireOneInstalled(const DeltaRequest& request, const Keys& keys) {
  const std::string* installed = nullptr;
  for (const std::string& key : keys) {
    if (request.new_tree.files.count(key) == 0) {
      continue;
    }
    if (installed != nullptr) {
      ThrowShared(*installed, key);
    }
    installed = &key;
  }
}

// A device patches a file in the work copy that it finds. When it has none of this file yet, it may
// find what was left of another that is deleted by now.
void RequireNoForeignCopy(const DeltaRequest& request, const Keys& keys) {
  const Keys& earlier = request.keys_touched_earlier;
  for (const std::string& key : keys) {
    if (earlier.count(key) != 0 || request.old_tree.files.count(key) == 0 ||
        request.new_tree.files.count(key) == 0) {
      continue;
    }
    for (const std::string& other : keys) {
      if (earlier.count(other) != 0) {
        ThrowShared(key, other);
      }
    }
  }
}

void RequireOwnWorkCopies(const DeltaRequest& request, const Keys& touched) {
  const KeysByName copies = WorkCopies(touched);
  for (const auto& [name, keys] : copies) {
    RequireOneInstalled(request, keys);
    RequireNoForeignCopy(request, keys);
    for (const char* side_file : kSqliteSideFiles) {
      const auto side = copies.find(name + side_file);
      if (side != copies.end()) {
        const std::string& key = *keys.begin();
        const std::string& beside = *side->second.begin();
        throw NotInChain(beside + " would lie where SQLite looks for a side file of " + key,
                         {key, beside});
      }
    }
  }
}

// The first of the sorted paths that lies below `directory`, or an empty text.
template <typename Sorted, typename Name>
std::string FirstBelow(const Sorted& paths, const std::string& directory, Name name) {
  const std::string prefix = directory + "/";
  const auto found = paths.lower_bound(prefix);
  return found != paths.end() && name(*found).compare(0, prefix.size(), prefix) == 0
             ? name(*found)
             : std::string();
}

void RequireNoDirectoryInPlace(const DeltaRequest& request, const std::string& key) {
  const auto text = [](const std::string& path) -> const std::string& { return path; };
  const auto of_file = [](const auto& entry) -> const std::string& { return entry.first; };
  for (const std::string& below : {FirstBelow(request.old_tree.files, key, of_file),
                                   FirstBelow(request.keys_touched_earlier, key, text),
                                   FirstBelow(request.directories_left_behind, key, text)}) {
    if (!below.empty()) {
      throw NotInChain(key + ": devices may have a directory here, with " + below + " in it",
                       {key, below});
    }
  }
}

// One of several spellings of a path.
bool IsPlain(const std::string& key) {
  for (const char* odd : {"//", "/./", "/../"}) {
    if ((key + '/').find(odd) != std::string::npos) {
      return false;
    }
  }
  return !key.empty() && key.front() == '/';
}

class Conflicts {
 public:
  explicit Conflicts(const std::map<int, std::set<std::string>>& touched) {
    for (const auto& [version, keys] : touched) {
      for (const std::string& key : keys) {
        last_[key] = version;
      }
    }
  }

  std::optional<int> LastStart() {
    for (const auto& [key, version] : last_) {
      const std::string name = WorkCopyName(key);
      if (!IsPlain(key)) {
        Add(version, version);
      }
      if (const auto other = copies_.find(name); other != copies_.end()) {
        Add(version, other->second);
      }
      int& newest = copies_[name];
      newest = std::max(newest, version);
      AddDirectoriesOf(key, version);
    }
    AddSideFiles();
    return start_;
  }

 private:
  // Both are touched by what is applied together as long as it begins before the older of these.
  void Add(int version, int other) {
    start_ = std::max(start_.value_or(INT_MIN), std::min(version, other) - 1);
  }

  void AddDirectoriesOf(const std::string& key, int version) {
    for (std::size_t end = key.rfind('/'); end != 0 && end != std::string::npos;
         end = key.rfind('/', end - 1)) {
      if (const auto other = last_.find(key.substr(0, end)); other != last_.end()) {
        Add(version, other->second);
      }
    }
  }

  void AddSideFiles() {
    for (const auto& [name, version] : copies_) {
      for (const char* side_file : kSqliteSideFiles) {
        if (const auto other = copies_.find(name + side_file); other != copies_.end()) {
          Add(version, other->second);
        }
      }
    }
  }

  std::map<std::string, int> last_;    // the newest version that touches the key
  std::map<std::string, int> copies_;  // the same by the name of its work copy
  std::optional<int> start_;
};

}  // namespace

std::set<std::string> TouchedKeys(const Tree& old_tree, const Tree& new_tree) {
  std::set<std::string> keys;
  for (const auto& [key, file] : new_tree.files) {
    const auto old = old_tree.files.find(key);
    if (old == old_tree.files.end() || old->second.sha384 != file.sha384) {
      keys.insert(key);
    }
  }
  for (const auto& entry : old_tree.files) {
    if (new_tree.files.count(entry.first) == 0) {
      keys.insert(entry.first);
    }
  }
  return keys;
}

void RequireFitForChain(const DeltaRequest& request) {
  std::set<std::string> keys = TouchedKeys(request.old_tree, request.new_tree);
  for (const std::string& key : keys) {
    if (request.new_tree.files.count(key) != 0) {
      RequireNoDirectoryInPlace(request, key);
    }
  }
  keys.insert(request.keys_touched_earlier.begin(), request.keys_touched_earlier.end());
  RequireOwnWorkCopies(request, keys);
}

std::optional<int> LastStartWithConflict(const std::map<int, std::set<std::string>>& touched) {
  return Conflicts(touched).LastStart();
}

bool CanBePatched(const std::string& key) {
  return key.size() + kLongestSideFile.size() <= NAME_MAX;
}

}  // namespace tolm::publish
