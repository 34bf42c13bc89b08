#include "chain_rules.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <vector>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "file_system.h"
#include "rehearsal.h"
#include "strategy_support.h"

namespace tolm::dataupdate {
namespace {

namespace fs = boost::filesystem;

// Two spellings of one path would be two entries of the plan, each with a work copy of its own.
void RequireDifferentFiles(const std::set<std::string>& keys) {
  std::map<std::string, std::string> owners;
  for (const std::string& key : keys) {
    const std::string& owner = owners.emplace(NormalPath(key), key).first->second;
    if (owner != key) {
      throw UpdateError((NoexceptFormat("Same file for %s and %s") % owner % key).str());
    }
  }
}

[[noreturn]] void ThrowSameWorkCopy(const std::string& key, const std::string& other) {
  throw UpdateError(
      (NoexceptFormat("Same work copy for %s and %s") % std::min(key, other) % std::max(key, other))
          .str());
}

// What the plan installs once the delta's changes are added to it.
std::set<std::string> InstalledKeys(const std::map<std::string, ModifyInfo>& plan,
                                    const Json::Value& patches) {
  std::set<std::string> keys;
  for (const auto& [key, info] : plan) {
    if (info.operation == kOverride) {
      keys.insert(key);
    }
  }
  for (const std::string& key : patches.getMemberNames()) {
    if (StringMember(patches[key], "operation") == "delete") {
      keys.erase(key);
    } else {
      keys.insert(key);
    }
  }
  return keys;
}

// Different keys may have the same flat name ("a.b" and "a_b"): of the files that are to be
// installed in the end, one would be the other's work copy.
void RequireOwnWorkCopies(const std::set<std::string>& installed_keys) {
  std::map<std::string, std::string> owners;
  for (const std::string& key : installed_keys) {
    const std::string& owner = owners.emplace(FlatFileName(key), key).first->second;
    if (owner != key) {
      ThrowSameWorkCopy(owner, key);
    }
  }
}

}  // namespace

std::string StringMember(const Json::Value& value, const char* name) {
  return value.isObject() && value[name].isString() ? value[name].asString() : std::string();
}

void RequireBelow(const std::string& relative) {
  if (!StaysBelow(relative)) {
    throw UpdateError("path not in base");
  }
}

void RequireRegularFile(const std::string& path) {
  boost::system::error_code error;
  const fs::file_type type = fs::symlink_status(path, error).type();
  if (type != fs::regular_file && type != fs::file_not_found) {
    throw UpdateError("Not a regular file: " + path);
  }
}

void RequireMember(const std::string& base, const std::string& relative) {
  RequireBelow(relative);
  const std::string path = base + "/" + relative;
  boost::system::error_code error;
  const std::string root = fs::canonical(base, error).string();
  if (error) {
    throw UpdateError("path not in base");
  }
  const std::string resolved = fs::canonical(path, error).string();
  if (!error) {
    RequireIn(root, resolved);
  }
  RequireRegularFile(path);
}

void RequireFitsPlan(const std::map<std::string, ModifyInfo>& plan, const Json::Value& patches) {
  std::set<std::string> touched = Keys(plan);
  const std::vector<std::string> names = patches.getMemberNames();
  touched.insert(names.begin(), names.end());
  RequireDifferentFiles(touched);
  RequireOwnWorkCopies(InstalledKeys(plan, patches));
}

void RequireNoForeignWorkCopy(const std::map<std::string, ModifyInfo>& plan,
                              const std::string& key) {
  const auto own = plan.find(key);
  if (own != plan.end() && own->second.operation == kOverride) {
    return;
  }
  const std::string flat = FlatFileName(key);
  for (const auto& entry : plan) {
    if (entry.first != key && FlatFileName(entry.first) == flat) {
      ThrowSameWorkCopy(entry.first, key);
    }
  }
}

void RequireInstallable(const std::map<std::string, ModifyInfo>& plan,
                        const std::string& install_prefix) {
  Rehearsal rehearsal(install_prefix);
  for (const auto& entry : plan) {
    rehearsal.Remove(entry.first);
  }
  for (const auto& [key, info] : plan) {
    if (info.operation == kOverride) {
      rehearsal.Install(key);
    }
  }
}

}  // namespace tolm::dataupdate
