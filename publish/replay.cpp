#include "publish/replay.h"

#include <unistd.h>

#include <filesystem>
#include <set>
#include <stdexcept>
#include <system_error>

#include "base/messages.h"
#include "base/rules.h"
#include "package/error.h"
#include "publish/files.h"
#include "publish/memory_file.h"
#include "publish/program.h"
#include "publish/replay/order.h"
#include "publish/sqlite_file.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;
using package::Code;

const Program kReplay = {TOLM_REPLAY_PROGRAM, "tolmdbpub"};

ReplayAnswer Replay(const ReplayOrder& order) {
  const MemoryFile input("order to replay", FormatReplayOrder(order));
  const MemoryFile output("result of a replay");
  const ProgramEnd end = RunToItsEnd(kReplay, {{}, output.Get(), input.Get()});
  if (end.signal != 0) {
    return {"the update was ended by signal " + std::to_string(end.signal), "", {}};
  }
  RequireSuccess(kReplay, end);
  try {
    return ParseReplayAnswer(output.Content());
  } catch (const std::runtime_error&) {
    throw package::Error(Code::kInternal, kReplay.name + " answers what this " +
                                              kReplay.debian_package +
                                              " does not understand; are both of one version?");
  }
}

std::string Explained(const std::string& problem, const std::string& work_directory) {
  return problem != messages::kDiskSpaceTooLow
             ? problem
             : problem + ": less than " + rules::kFreeShareText + " of the file system of " +
                   work_directory + " would stay free, and devices refuse an update then";
}

bool IsSame(const std::string& path, const FileFacts& facts, const TreeFile& expected) {
  return (facts.size_bytes == expected.size_bytes && facts.sha384 == expected.sha384) ||
         HoldTheSame(path, expected.path);
}

}  // namespace

ReplayedDevice::ReplayedDevice(std::string name, const std::string& directory,
                               package::TrustTexts trust, std::int64_t now)
    : name_(std::move(name)),
      directory_(fs::absolute(directory).string()),
      trust_(std::move(trust)),
      now_(now) {}

std::string ReplayedDevice::Installed() const {
  return directory_ + '/' + kReplayInstalled;
}

void ReplayedDevice::Install(const Tree& tree, int version) {
  MakeDirectories(Installed());
  // Devices put new files in the place of old ones and never write into an installed one.
  LinkTree(tree, Installed());
  version_ = version;
}

std::set<std::string> ReplayedDevice::Update(const std::vector<ReplayPackage>& packages) {
  ReplayOrder order;
  order.publisher = ::getpid();
  order.directory = directory_;
  order.name = name_;
  order.installed_version = version_;
  for (const ReplayPackage& package : packages) {
    order.packages[package.version] = fs::absolute(package.path).string();
  }
  order.trust = trust_;
  order.now = now_;
  ReplayAnswer answer = Replay(order);
  if (!answer.problem.empty()) {
    throw ReplayError(Explained(answer.problem, directory_), answer.key);
  }
  version_ = packages.empty() ? version_ : packages.back().version;
  return std::move(answer.touched);
}

std::string ReplayChain(const ReplayRequest& request) {
  ReplayedDevice device(request.name, request.work_directory, request.trust->Texts(), request.now);
  device.Install(request.old_tree, request.installed_version);
  device.Update(request.packages);
  return device.Installed();
}

std::vector<std::string> CompareTrees(const std::string& result, const Tree& expected) {
  std::set<std::string> wrong;
  std::error_code error;
  fs::recursive_directory_iterator entry(result, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    const std::string key = "/" + entry->path().lexically_relative(result).string();
    if (entry->symlink_status().type() != fs::file_type::directory &&
        expected.files.count(key) == 0) {
      wrong.insert(key);
    }
  }
  if (error) {
    throw package::SystemError(Code::kRead, result, error.value());
  }
  for (const auto& [key, file] : expected.files) {
    if (fs::symlink_status(result + key, error).type() != fs::file_type::regular ||
        !IsSame(result + key, MeasureFile(result + key), file)) {
      wrong.insert(key);
    }
  }
  return {wrong.begin(), wrong.end()};
}

std::vector<std::string> CompareTrees(const Tree& result, const Tree& expected) {
  std::set<std::string> wrong;
  for (const auto& [key, file] : result.files) {
    const auto found = expected.files.find(key);
    if (found == expected.files.end() ||
        !IsSame(file.path, {file.size_bytes, file.sha384}, found->second)) {
      wrong.insert(key);
    }
  }
  for (const auto& [key, file] : expected.files) {
    if (result.files.count(key) == 0) {
      wrong.insert(key);
    }
  }
  return {wrong.begin(), wrong.end()};
}

std::string ReplayProgramDigest() {
  if (!fs::exists(kReplay.name)) {
    ThrowNotInstalled(kReplay);
  }
  return MeasureFile(kReplay.name).sha384;
}

}  // namespace tolm::publish
