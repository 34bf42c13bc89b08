#ifndef TOLM_SRC_REHEARSAL_H_
#define TOLM_SRC_REHEARSAL_H_

#include <algorithm>
#include <boost/filesystem.hpp>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dataupdate/error.h"
#include "file_system.h"

namespace tolm::dataupdate {

/// What the installation of a delta will do to the installed files, found out without touching one.
/// Takes the same steps in the same order: every file of the plan is removed, then the new ones are
/// installed. The first that would fail throws UpdateError "Cannot install <key>: <reason>". What
/// depends on the moment (a full disk, what other programs do) is not foreseen.
class Rehearsal {
 public:
  explicit Rehearsal(const std::string& install_prefix) : root_(Resolved(install_prefix)) {}

  void Remove(const std::string& key) {
    Try(key, [&] {
      const auto [directories, name] = Split(key);
      std::optional<std::string> directory = root_;
      for (const std::string& component : directories) {
        directory = DirectoryAt(*directory + "/" + component);
        if (!directory) {
          return;  // Nothing is there.
        }
      }
      const std::string path = *directory + "/" + name;
      if (KindOf(path) == Kind::kDirectory) {
        RequireEmpty(path);
      }
      changed_[path] = Kind::kNothing;
    });
  }

  void Install(const std::string& key) {
    Try(key, [&] {
      const auto [directories, name] = Split(key);
      std::string directory = root_;
      for (const std::string& component : directories) {
        directory = MakeDirectory(directory + "/" + component);
      }
      const std::string path = directory + "/" + name;
      const Kind kind = KindOf(path);
      if (kind != Kind::kNothing) {
        throw UpdateError(
            path + (kind == Kind::kDirectory ? " is a directory" : " is installed by another key"));
      }
      changed_[path] = Kind::kOther;
    });
  }

 private:
  enum class Kind { kNothing, kDirectory, kLink, kOther };

  static std::string Resolved(const std::string& prefix) {
    boost::system::error_code error;
    const std::string resolved = boost::filesystem::canonical(prefix, error).string();
    return error ? prefix : resolved == "/" ? "" : resolved;
  }

  static std::pair<std::vector<std::string>, std::string> Split(const std::string& key) {
    if (key.back() == '/' || (key.size() > 1 && key.compare(key.size() - 2, 2, "/.") == 0)) {
      throw UpdateError("not the name of a file");
    }
    const std::string path = NormalPath(key);
    std::vector<std::string> components;
    for (std::size_t begin = 1; begin <= path.size();) {
      const std::size_t end = std::min(path.find('/', begin), path.size());
      components.push_back(path.substr(begin, end - begin));
      begin = end + 1;
    }
    const std::string name = components.back();
    components.pop_back();
    return {components, name};
  }

  template <typename Step>
  static void Try(const std::string& key, Step step) {
    const std::string prefix = "Cannot install " + key + ": ";
    try {
      step();
    } catch (const boost::filesystem::filesystem_error& error) {
      throw UpdateError(prefix + error.code().message());
    } catch (const UpdateError& error) {
      throw UpdateError(prefix + error.what());
    }
  }

  Kind KindOf(const std::string& path) const {
    const auto changed = changed_.find(path);
    if (changed != changed_.end()) {
      return changed->second;
    }
    if (changed_.count(path.substr(0, path.rfind('/'))) != 0) {
      return Kind::kNothing;  // A new directory, perhaps where a link to another was.
    }
    switch (boost::filesystem::symlink_status(path).type()) {
      case boost::filesystem::file_not_found:
        return Kind::kNothing;
      case boost::filesystem::directory_file:
        return Kind::kDirectory;
      case boost::filesystem::symlink_file:
        return Kind::kLink;
      default:
        return Kind::kOther;
    }
  }

  // The directory that is at the path or behind the link there.
  std::optional<std::string> DirectoryAt(const std::string& path) const {
    std::string directory = path;
    if (KindOf(path) == Kind::kLink) {
      boost::system::error_code error;
      directory = boost::filesystem::canonical(path, error).string();
      if (error) {
        return std::nullopt;
      }
    }
    return KindOf(directory) == Kind::kDirectory ? std::optional(directory) : std::nullopt;
  }

  std::string MakeDirectory(const std::string& path) {
    if (KindOf(path) == Kind::kNothing) {
      changed_[path] = Kind::kDirectory;
    }
    const std::optional<std::string> directory = DirectoryAt(path);
    if (!directory) {
      throw UpdateError(path + " is not a directory");
    }
    return *directory;
  }

  void RequireEmpty(const std::string& directory) const {
    for (const auto& entry : boost::filesystem::directory_iterator(directory)) {
      if (KindOf(entry.path().string()) != Kind::kNothing) {
        throw UpdateError("a directory stands there, with " + entry.path().filename().string() +
                          " in it");
      }
    }
  }

  const std::string root_;
  std::map<std::string, Kind> changed_;  // By resolved path: what is different by now.
};

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_REHEARSAL_H_
