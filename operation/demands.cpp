#include "operation/demands.h"

#include <json/value.h>

#include <boost/format.hpp>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <system_error>

#include "base/paths.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "operation/installed_files.h"
#include "operation/interruptible_lock.h"
#include "operation/offered_package.h"
#include "operation/trust_state.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::NoexceptFormat;

// The names that the library gives to what it has downloaded.
std::string PackageName(const Installation& installation, const std::string& tag) {
  return (NoexceptFormat(paths::kPackageFile) % installation.volume % installation.name % tag)
      .str();
}

// Where the delta of that package is unpacked; empty for another package.
std::string DeltaDirectory(const Installation& installation, const std::string& package) {
  const std::string prefix = PackageName(installation, "d");
  if (package.rfind(prefix, 0) != 0) {
    return "";
  }
  return (NoexceptFormat(paths::kUnpackedDelta) % installation.volume % installation.name %
          package.substr(prefix.size()))
      .str();
}

// What is no description of patches is refused by the library, in its own words.
Json::Value ReadPatches(const std::string& directory) {
  try {
    Json::Value patches = dataupdate::IOUtils().ReadJson(directory + "/patch_infos.json");
    return patches.isObject() ? patches : Json::Value(Json::objectValue);
  } catch (const dataupdate::UpdateError&) {
    return Json::Value(Json::objectValue);
  }
}

// A key that leads out of the directory is refused by the library as well.
bool LeadsOut(const std::string& file) {
  return file.rfind("../", 0) == 0;
}

bool Patches(const Json::Value& patch) {
  return patch.isObject() && patch["operation"] == "update";
}

}  // namespace

Demands::Demands(const Installation& installation, OperationKind kind, int wanted_version,
                 const OperationInfo& info, const std::function<void(const std::string&)>& say)
    : installation_(installation),
      kind_(kind),
      wanted_version_(wanted_version),
      info_(info),
      say_(say) {}

// The library makes a directory before it fetches a package, and that of the cached description
// whenever it looks at that.
bool Demands::MayMake(const std::string& directory) {
  return directory == paths::kCacheDirectory || kind_ == OperationKind::kForceInstall ||
         !IsBelowFloor();
}

bool Demands::IsBelowFloor() {
  // What an earlier release has installed has no floor yet.
  const int recorded = FloorOf(installation_.name);
  const int floor =
      recorded == kNeverInstalled ? info_.VersionBefore(installation_.name) : recorded;
  const std::optional<int> offered = info_.OfferedVersion();
  if (!offered || *offered >= floor) {
    return false;
  }
  refusal_ = "version " + std::to_string(*offered) + " is offered, but version " +
             std::to_string(floor) +
             " was installed before; an older one is installed by force-install, or after "
             "\"tolmdbud trust lower " +
             installation_.name + ' ' + std::to_string(*offered) + '"';
  return true;
}

// Under a name with a version, only a package that is sealed for it is accepted.
std::string Demands::PathToOpen(const std::string& package) {
  if (kind_ != OperationKind::kForceInstall || package != PackageName(installation_, "debug")) {
    return package;
  }
  const std::int64_t version =
      wanted_version_ > 0 ? wanted_version_
                          : std::int64_t{info_.OfferedVersion().value_or(0)} + wanted_version_;
  const std::string named = PackageName(installation_, "v" + std::to_string(version));
  fs::rename(package, named);
  return named;
}

std::string Demands::DifferenceFromOffer(const std::string& package) {
  for (const auto& [tag, offered] : info_.Packages()) {
    if (package == PackageName(installation_, tag)) {
      return DifferenceOf(package, offered, EndWhenInterrupted);
    }
  }
  return "";  // Of another version nothing is known.
}

bool Demands::Accepts(const std::string& package) {
  const std::string directory = DeltaDirectory(installation_, package);
  if (directory.empty()) {
    return true;
  }
  const std::string problem = ProblemOfDelta(directory);
  if (!problem.empty()) {
    say_(problem + "; the full package is installed in place of deltas");
  }
  return problem.empty();
}

// Empty when it is, or is not there at all: that is for the library to say.
std::string Demands::ProblemOfFile(const std::string& file) const {
  const std::string path = installation_.directory + '/' + file;
  const auto recorded = info_.Record()->files.find(file);
  try {
    if (!fs::exists(fs::symlink_status(path))) {
      return "";
    }
    if (recorded == info_.Record()->files.end()) {
      return file + " is not among the files that were installed";
    }
    const bool is_same = HasContentOf(recorded->second, installation_.directory, [] {});
    return is_same ? "" : file + " has another content than was installed";
  } catch (const std::system_error& error) {
    return error.what();  // names the file itself
  } catch (const std::exception& error) {
    return file + ": " + error.what();
  }
}

// The library would follow it; empty when there is none.
std::string Demands::LinkAbove(const std::string& file) const {
  for (std::size_t end = file.find('/'); end != std::string::npos; end = file.find('/', end + 1)) {
    const std::string directory = file.substr(0, end);
    if (fs::is_symlink(fs::symlink_status(installation_.directory + '/' + directory))) {
      return directory;
    }
  }
  return "";
}

// Each file is looked at before the first delta that patches it: what follows patches the result.
std::string Demands::ProblemOfDelta(const std::string& directory) {
  const Json::Value patches = ReadPatches(directory);
  for (const std::string& key : patches.getMemberNames()) {
    const std::string file = PlainName(key);
    const std::string link = LeadsOut(file) ? "" : LinkAbove(file);
    if (!link.empty()) {
      return link + " is a link";
    }
    if (!touched_.insert(file).second || LeadsOut(file) || !Patches(patches[key]) ||
        !info_.Record()) {
      continue;
    }
    std::string problem = ProblemOfFile(file);
    if (!problem.empty()) {
      return problem;
    }
  }
  return "";
}

}  // namespace tolm::operation
