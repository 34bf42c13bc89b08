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

ReplayOrder OrderFor(const ReplayRequest& request, const std::string& work_directory) {
  ReplayOrder order;
  order.publisher = ::getpid();
  order.directory = work_directory;
  order.name = request.name;
  order.installed_version = request.installed_version;
  for (const ReplayPackage& package : request.packages) {
    order.packages[package.version] = fs::absolute(package.path).string();
  }
  order.trust = request.trust->Texts();
  order.now = request.now;
  return order;
}

ReplayFailure Replay(const ReplayOrder& order) {
  const MemoryFile input("order to replay", FormatReplayOrder(order));
  const MemoryFile output("result of a replay");
  const ProgramEnd end = RunToItsEnd(kReplay, {{}, output.Get(), input.Get()});
  if (end.signal != 0) {
    return {"the update was ended by signal " + std::to_string(end.signal), ""};
  }
  RequireSuccess(kReplay, end);
  try {
    return ParseReplayFailure(output.Content());
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

bool IsSame(const std::string& path, const TreeFile& expected) {
  const FileFacts facts = MeasureFile(path);
  if (facts.size_bytes == expected.size_bytes && facts.sha384 == expected.sha384) {
    return true;
  }
  return HoldTheSame(path, expected.path);
}

}  // namespace

std::string ReplayChain(const ReplayRequest& request) {
  const std::string work_directory = fs::absolute(request.work_directory).string();
  const std::string installed = work_directory + '/' + kReplayInstalled;
  MakeDirectories(installed);
  // Devices put new files in the place of old ones and never write into an installed one.
  LinkTree(request.old_tree, installed);
  const ReplayFailure failure = Replay(OrderFor(request, work_directory));
  if (!failure.problem.empty()) {
    throw ReplayError(Explained(failure.problem, work_directory), failure.key);
  }
  return installed;
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
        !IsSame(result + key, file)) {
      wrong.insert(key);
    }
  }
  return {wrong.begin(), wrong.end()};
}

}  // namespace tolm::publish
