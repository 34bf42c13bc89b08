#include "publish/replay.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <system_error>

#include "base/descriptor.h"
#include "base/messages.h"
#include "base/rules.h"
#include "package/error.h"
#include "package/file_io.h"
#include "publish/files.h"
#include "publish/replay_device.h"
#include "publish/sqlite_file.h"
#include "sqldelta/sqlite_compare.h"
#include "sqldelta/sqlite_reader.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;
using base::Descriptor;
using package::Code;

ReplayDevice DeviceFor(const ReplayRequest& request) {
  ReplayDevice device;
  device.name = request.name;
  device.installed_version = request.installed_version;
  device.trust = request.trust;
  device.now = request.now;
  for (const ReplayPackage& package : request.packages) {
    device.packages[package.version] = fs::absolute(package.path).string();
  }
  return device;
}

// The body of the child: reports why the update failed, and ends.
[[noreturn]] void RunChild(const ReplayDevice& device, const std::string& work_directory,
                           pid_t parent, int report) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  int status = EXIT_FAILURE;
  // The parent may have gone before it was to be heard of.
  if (::getppid() == parent) {
    ::setlogmask(LOG_MASK(LOG_EMERG));
    try {
      const bool entered = ::chdir(work_directory.c_str()) == 0;
      const std::string problem =
          entered ? UpdateReplayDevice(device) : work_directory + ": cannot be entered";
      package::WriteAll(report, problem.data(), problem.size(), "report");
      status = EXIT_SUCCESS;
    } catch (const std::exception&) {
      // The status says that there is no report.
    }
  }
  // No destructor or exit handler of the parent's may run here.
  ::_exit(status);
}

std::string ReadReport(int fd) {
  std::string text;
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return text;
    }
  }
}

int WaitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      throw package::SystemError(Code::kInternal, "replay", errno);
    }
  }
  return status;
}

// Returns what the child reports: why the update failed, or nothing.
std::string UpdateInChild(const ReplayDevice& device, const std::string& work_directory) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw package::SystemError(Code::kInternal, "replay", errno);
  }
  const Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child < 0) {
    throw package::SystemError(Code::kInternal, "replay", errno);
  }
  if (child == 0) {
    RunChild(device, work_directory, parent, writer.Get());
  }
  writer = Descriptor();
  const std::string problem = ReadReport(reader.Get());
  const int status = WaitFor(child);
  if (WIFSIGNALED(status)) {
    return "the update was ended by signal " + std::to_string(WTERMSIG(status));
  }
  return status == 0 ? problem : "the update ended without a word";
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
  if (!IsSqliteFile(path) || !IsSqliteFile(expected.path)) {
    return false;
  }
  try {
    return !sqldelta::CompareSqlite(path, expected.path);
  } catch (const sqldelta::SqliteError&) {
    return false;
  }
}

}  // namespace

std::string ReplayChain(const ReplayRequest& request) {
  const std::string work_directory = fs::absolute(request.work_directory).string();
  const std::string installed = work_directory + "/installed";
  MakeDirectories(installed);
  // Devices put new files in the place of old ones and never write into an installed one.
  LinkTree(request.old_tree, installed);
  const std::string problem = UpdateInChild(DeviceFor(request), work_directory);
  if (!problem.empty()) {
    throw ReplayError(Explained(problem, work_directory));
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
