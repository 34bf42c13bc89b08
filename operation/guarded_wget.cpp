#include "operation/guarded_wget.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "base/descriptor.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "operation/credentials.h"
#include "operation/download_failure.h"
#include "operation/download_pace.h"
#include "operation/interrupt.h"
#include "operation/link_rules.h"
#include "operation/program_watch.h"
#include "operation/server_config.h"
#include "operation/sources.h"
#include "operation/wget_log.h"

namespace tolm::operation {
namespace {

constexpr char kLogSource[] = "wget";
constexpr char kVariable[] = "WGETRC";
constexpr int kServerError = 8;  // wget's exit status, also for a redirect that it may not follow.
constexpr int kNotRun = -1;

[[noreturn]] void ThrowErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// The name by which a program that is started gets at a descriptor of this process, and nobody else
// but root. What has no name of its own is not left behind by a kill.
std::string NameFor(const base::Descriptor& descriptor) {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor.Get());
}

// The file that wget would read of itself.
std::optional<std::string> OperatorsFile() {
  if (const char* named = std::getenv(kVariable)) {
    return *named == '\0' ? std::nullopt : std::make_optional<std::string>(named);
  }
  const char* home = std::getenv("HOME");
  const std::string file = home == nullptr ? "" : std::string(home) + "/.wgetrc";
  return !file.empty() && access(file.c_str(), F_OK) == 0 ? std::make_optional(file) : std::nullopt;
}

std::string OperatorsSettings() {
  const std::optional<std::string> file = OperatorsFile();
  if (!file) {
    return "";
  }
  std::ifstream in(*file);
  std::ostringstream text;
  if (!in || (in.peek() != std::ifstream::traits_type::eof() && !(text << in.rdbuf()))) {
    throw std::runtime_error("the settings for wget in " + *file + " cannot be read");
  }
  return text.str() + '\n';
}

// An environment variable that has another value for as long as this exists.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::string& value) : name_(name) {
    if (const char* before = std::getenv(name)) {
      before_ = before;
    }
    setenv(name, value.c_str(), 1);
  }
  ~ScopedVariable() {
    if (before_) {
      setenv(name_, before_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const char* name_;
  std::optional<std::string> before_;
};

// wget's settings and the pipe for what it writes.
class Files {
 public:
  explicit Files(const Url& url) : settings_(memfd_create("wgetrc", MFD_CLOEXEC)) {
    std::array<int, 2> ends{};
    if (!settings_.IsOpen() || pipe2(ends.data(), O_CLOEXEC) != 0) {
      ThrowErrno("the settings for wget");
    }
    reader_ = base::Descriptor(ends[0]);
    writer_ = base::Descriptor(ends[1]);
    const std::string text = SettingsFor(url);
    if (fcntl(reader_.Get(), F_SETFL, O_NONBLOCK) != 0 || fchmod(settings_.Get(), 0600) != 0 ||
        write(settings_.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      ThrowErrno("the settings for wget");
    }
    if (access(NameFor(settings_).c_str(), R_OK) != 0) {
      ThrowErrno("the settings for wget, which need /proc");
    }
  }

  std::string SettingsName() const { return NameFor(settings_); }
  int output() const { return reader_.Get(); }

 private:
  std::string SettingsFor(const Url& url) const {
    std::string text = OperatorsSettings() +
                       "max_redirect = 0\nserver_response = on\nlogfile = " + NameFor(writer_) +
                       '\n';
    if (const std::optional<Credentials> credentials = CredentialsFor(url)) {
      text +=
          "http_user = " + credentials->user + "\nhttp_password = " + credentials->password + '\n';
    }
    return text;
  }

  base::Descriptor settings_;
  base::Descriptor reader_;
  base::Descriptor writer_;
};

std::uint64_t SizeOf(const std::string& file) {
  struct stat status;
  return stat(file.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// One download with all its redirects.
class Download {
 public:
  Download(std::string file, const std::function<int(const std::string&)>& run)
      : file_(std::move(file)), run_(run), server_(AskedServer()) {}

  DownloadResult Run(Url url) {
    for (int hop = 0; hop <= rules::kMostRedirects; ++hop) {
      const int exit_status = RunOnce(url);
      if (is_too_slow_ && exit_status != 0) {
        return TooSlow(exit_status, url);
      }
      const std::optional<std::string> redirect =
          exit_status == kServerError ? log_.Redirect() : std::nullopt;
      if (!redirect || Interrupt::Received() != 0) {
        LogFailure(exit_status);
        return {exit_status, "", DownloadFailure(url, exit_status, log_)};
      }
      const std::string from = ShownUrl(url);
      const std::string refusal = Follow(*redirect, url);
      if (!refusal.empty()) {
        return {exit_status, refusal, Refused(from + ": " + refusal)};
      }
    }
    const std::string many = "more than " + std::to_string(rules::kMostRedirects) + " redirects";
    return {kServerError, many, Refused(many + ", the last to " + ShownUrl(url))};
  }

 private:
  static DownloadResult TooSlow(int exit_status, const Url& url) {
    const std::string what =
        " sends less than " + std::to_string(rules::kLeastBytesPerSecond) + " bytes a second";
    return {
        exit_status, "the server" + what, {reasons::kTooSlow, OriginOf(url) + what, "try later"}};
  }

  static Failure Refused(const std::string& why) {
    return {reasons::kLinkRefused, why, "ask who runs the server"};
  }

  int RunOnce(const Url& url) {
    const Files files(url);
    const ScopedVariable settings(kVariable, files.SettingsName());
    const ScopedVariable language("LC_ALL", "C");  // What it says is read.
    log_ = WgetLog();
    ProgramWatch watch(
        [this] { return pace_.IsTooSlow(std::chrono::steady_clock::now(), SizeOf(file_)); },
        files.output(), [this](std::string_view piece) { log_.Add(piece); });
    const int exit_status = run_(TextOf(url));
    watch.Stop();
    is_too_slow_ = watch.ended();
    return exit_status;
  }

  // Why not; empty when url is the target now.
  std::string Follow(const std::string& redirect, Url& url) const {
    std::optional<Url> target = Resolve(url, redirect);
    const std::string refusal = LinkRefusal("a redirect", target, server_, url);
    if (!refusal.empty()) {
      return refusal;
    }
    RememberCredentials(target->scheme + "://" + target->user_info + '@' +
                            TextOf(*target).substr(target->scheme.size() + 3),
                        StatedBy::kLink);
    url = *target;
    syslog(LOG_INFO, "%s:%d redirected to %s", TOLM_LOG_HERE, TextOf(url).c_str());
    return "";
  }

  void LogFailure(int exit_status) const {
    if (exit_status == 0) {
      return;
    }
    for (const std::string& line : log_.LastLines()) {
      syslog(LOG_NOTICE, "%s: %s", paths::kWget, line.c_str());
    }
  }

  const std::string file_;
  const std::function<int(const std::string&)>& run_;
  const std::optional<Url> server_;
  DownloadPace pace_{std::chrono::steady_clock::now()};
  WgetLog log_;
  bool is_too_slow_ = false;
};

}  // namespace

std::string RefusalOfLink(const std::string& url) {
  if (AskedSource() && AskedSource()->kind == Source::Kind::kDirectory) {
    return "";
  }
  return LinkRefusal("its link", ParseUrl(url), AskedServer(), ConfiguredServer());
}

DownloadResult RunGuarded(const std::string& url, const std::string& file,
                          const std::function<int(const std::string& url)>& run) {
  try {
    const std::optional<Url> parsed = ParseUrl(url);
    if (!parsed) {
      const std::string refusal = RefusalOfLink(url);
      return {kNotRun, refusal, {reasons::kLinkRefused, refusal}};
    }
    return Download(file, run).Run(*parsed);
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d %s", TOLM_LOG_HERE, error.what());
    return {kNotRun, error.what(), FailureOf(error)};
  }
}

}  // namespace tolm::operation
