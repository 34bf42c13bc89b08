#include "rehearsal.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <utility>
#include <vector>

#include "dataupdate/error.h"
#include "file_system.h"

namespace tolm::dataupdate {
namespace {

std::string Resolved(const std::string& prefix) {
  boost::system::error_code error;
  const std::string resolved = boost::filesystem::canonical(prefix, error).string();
  return error ? prefix : resolved == "/" ? "" : resolved;
}

std::pair<std::vector<std::string>, std::string> Split(const std::string& key) {
  if (key.back() == '/' || (key.size() > 1 && key.compare(key.size() - 2, 2, "/.") == 0)) {
    throw UpdateError("not the name of a file");
  }
  const std::string path = NormalPath(key);
  std::vector<std::string> components;
  for (std::size_t begin = 1; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    components.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  const std::string name = components.back();
  components.pop_back();
  return {components, name};
}

template <typename Step>
void Try(const std::string& key, Step step) {
  const std::string prefix = "Cannot install " + key + ": ";
  try {
    step();
  } catch (const boost::filesystem::filesystem_error& error) {
    throw UpdateError(prefix + error.code().message());
  } catch (const UpdateError& error) {
    throw UpdateError(prefix + error.what());
  }
}

}  // namespace

Rehearsal::Rehearsal(const std::string& install_prefix) : root_(Resolved(install_prefix)) {}

void Rehearsal::Remove(const std::string& key) {
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

void Rehearsal::Install(const std::string& key) {
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

Rehearsal::Kind Rehearsal::KindOf(const std::string& path) const {
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
std::optional<std::string> Rehearsal::DirectoryAt(const std::string& path) const {
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

std::string Rehearsal::MakeDirectory(const std::string& path) {
  if (KindOf(path) == Kind::kNothing) {
    changed_[path] = Kind::kDirectory;
  }
  const std::optional<std::string> directory = DirectoryAt(path);
  if (!directory) {
    throw UpdateError(path + " is not a directory");
  }
  return *directory;
}

void Rehearsal::RequireEmpty(const std::string& directory) const {
  for (const auto& entry : boost::filesystem::directory_iterator(directory)) {
    if (KindOf(entry.path().string()) != Kind::kNothing) {
      throw UpdateError("a directory stands there, with " + entry.path().filename().string() +
                        " in it");
    }
  }
}

}  // namespace tolm::dataupdate
