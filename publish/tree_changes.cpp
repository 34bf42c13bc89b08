#include "publish/tree_changes.h"

#include <map>

#include "publish/chain_rules.h"

namespace tolm::publish {
namespace {

using KeysByDigest = std::multimap<std::string, std::string>;

// An empty file is like every other one, and no sign of a renaming.
KeysByDigest GoneOf(const Tree& before, const Tree& after) {
  KeysByDigest gone;
  for (const auto& [key, file] : before.files) {
    if (after.files.count(key) == 0 && file.size_bytes > 0) {
      gone.emplace(file.sha384, key);
    }
  }
  return gone;
}

}  // namespace

const char* FileChangeKindText(FileChangeKind kind) {
  switch (kind) {
    case FileChangeKind::kNew:
      return "new";
    case FileChangeKind::kChanged:
      return "changed";
    case FileChangeKind::kGone:
      return "gone";
    case FileChangeKind::kRenamed:
      return "renamed";
  }
  return "";
}

std::vector<FileChange> ChangesOf(const Tree& before, const Tree& after) {
  KeysByDigest gone = GoneOf(before, after);
  std::set<std::string> renamed;
  std::vector<FileChange> changes;
  for (const std::string& key : TouchedKeys(before, after)) {
    const auto file = after.files.find(key);
    if (file == after.files.end()) {
      changes.push_back({key, FileChangeKind::kGone, 0, ""});
      continue;
    }
    FileChange change = {key, FileChangeKind::kChanged, file->second.size_bytes, ""};
    if (before.files.count(key) == 0) {
      const auto old = gone.find(file->second.sha384);
      change.kind = old == gone.end() ? FileChangeKind::kNew : FileChangeKind::kRenamed;
      if (old != gone.end()) {
        change.renamed_from = old->second;
        renamed.insert(old->second);
        gone.erase(old);
      }
    }
    changes.push_back(change);
  }
  std::vector<FileChange> named;
  for (FileChange& change : changes) {
    if (change.kind != FileChangeKind::kGone || renamed.count(change.key) == 0) {
      named.push_back(std::move(change));
    }
  }
  return named;
}

}  // namespace tolm::publish
