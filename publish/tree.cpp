#include "publish/tree.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include "base/parallel.h"
#include "base/utf8.h"
#include "package/error.h"
#include "package/member_path.h"
#include "publish/file_copy.h"
#include "publish/files.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Error;

struct stat Status(const std::string& path, bool follow) {
  struct stat status {};
  const int result = follow ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status);
  if (result != 0) {
    throw package::SystemError(Code::kRead, base::EscapeControls(path), errno);
  }
  return status;
}

class Scanner {
 public:
  explicit Scanner(const ScanOptions& options) : options_(options) {}

  // `key` is empty for the top.
  void AddDirectory(const std::string& path, const std::string& key) {
    // Links are followed at the top in any case: it is what the caller named.
    const struct stat status = Status(path, options_.follow_links || key.empty());
    const Identity identity(status.st_dev, status.st_ino);
    if (!open_directories_.insert(identity).second) {
      throw Error(Code::kRead, key + ": this link leads to a directory that it lies in");
    }
    for (const std::string& name : NamesIn(path)) {
      AddEntry(path + "/" + name, key + "/" + name);
    }
    open_directories_.erase(identity);
  }

  // Once all names are known to be right.
  void ReadContents() {
    std::vector<TreeFile*> files;
    for (auto& entry : tree_.files) {
      files.push_back(&entry.second);
    }
    base::ForEach(files.size(), options_.jobs, [&](std::size_t at) { ReadContent(*files[at]); });
  }

  Tree Take() {
    // Found in the order of names within each directory, which is another order: "/a/b", "/a.b".
    std::sort(warnings_.begin(), warnings_.end());
    for (auto& warning : warnings_) {
      tree_.warnings.push_back(std::move(warning.second));
    }
    return std::move(tree_);
  }

 private:
  using Identity = std::pair<dev_t, ino_t>;

  static void CheckName(const std::string& key) {
    const std::string shown = base::EscapeControls(key);
    if (!base::IsPrintableUtf8(key)) {
      throw Error(Code::kMemberPath, shown + ": the name is not UTF-8 or has control characters");
    }
    if (package::IsReserved(package::SplitMemberPath(key.substr(1)))) {
      throw Error(Code::kMemberPath, shown + ": this name belongs to the package format");
    }
  }

  void AddEntry(const std::string& path, const std::string& key) {
    CheckName(key);
    const struct stat status = Status(path, options_.follow_links);
    if (S_ISDIR(status.st_mode)) {
      AddDirectory(path, key);
    } else if (S_ISREG(status.st_mode)) {
      AddFile(path, key);
    } else if (S_ISLNK(status.st_mode)) {
      throw Error(Code::kMemberType, key + ": a symbolic link, which no full update installs");
    } else {
      throw Error(Code::kMemberType, key + ": neither a file nor a directory");
    }
  }

  void AddFile(const std::string& path, const std::string& key) {
    if (key.find(':') != std::string::npos) {
      warnings_.emplace_back(
          key, key + ": the name has a \":\", on which hooks that split lists of names go wrong");
    }
    tree_.files[key] = {key, path, 0, ""};
  }

  // Files have nothing to do with each other, so several threads may be here.
  void ReadContent(TreeFile& file) const {
    const struct stat before = Status(file.path, options_.follow_links);
    FileFacts facts = MeasureFile(file.path);
    const struct stat after = Status(file.path, options_.follow_links);
    const auto stamp = [](const struct stat& status) {
      return std::tuple(status.st_mode, status.st_ino, status.st_mtim.tv_sec,
                        status.st_mtim.tv_nsec);
    };
    if (!S_ISREG(before.st_mode) || stamp(before) != stamp(after) ||
        facts.size_bytes != static_cast<std::uint64_t>(before.st_size)) {
      throw Error(Code::kChanged, file.key + ": changed while it was being read");
    }
    file.size_bytes = facts.size_bytes;
    file.sha384 = std::move(facts.sha384);
  }

  ScanOptions options_;
  std::set<Identity> open_directories_;  // those above the one that is being read, and itself
  std::vector<std::pair<std::string, std::string>> warnings_;
  Tree tree_;
};

void PlaceTree(const Tree& tree, const std::string& directory,
               void (*place)(const std::string&, const std::string&)) {
  std::string made;
  for (const auto& [key, file] : tree.files) {
    const std::string destination = directory + key;
    const std::string parent = fs::path(destination).parent_path().string();
    std::error_code error;
    if (parent != made && !fs::create_directories(parent, error) && error) {
      throw package::WriteError(parent, error.value());
    }
    made = parent;
    place(file.path, destination);
  }
}

}  // namespace

Tree ScanTree(const std::string& directory, const ScanOptions& options) {
  Scanner scanner(options);
  scanner.AddDirectory(directory, "");
  scanner.ReadContents();
  return scanner.Take();
}

std::string TreeDigest(const Tree& tree) {
  std::string text;
  for (const auto& [key, file] : tree.files) {
    // A key may hold anything but control characters, so a line break ends it for certain.
    text += key + '\n' + std::to_string(file.size_bytes) + '\n' + file.sha384 + '\n';
  }
  return Sha384OfText(text);
}

void CopyTree(const Tree& tree, const std::string& directory) {
  PlaceTree(tree, directory, CopyFile);
}

void LinkTree(const Tree& tree, const std::string& directory) {
  PlaceTree(tree, directory, LinkOrCopyFile);
}

}  // namespace tolm::publish
