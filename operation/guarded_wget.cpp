#include "operation/guarded_wget.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
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
#include "base/human_text.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "operation/credentials.h"
#include "operation/download_failure.h"
#include "operation/download_pace.h"
#include "operation/interrupt.h"
#include "operation/interruptible_lock.h"
#include "operation/link_rules.h"
#include "operation/operator_settings.h"
#include "operation/partial_downloads.h"
#include "operation/program_watch.h"
#include "operation/server_config.h"
#include "operation/sources.h"
#include "operation/tell_road.h"
#include "operation/wget_log.h"

namespace tolm::operation {
namespace {

constexpr char kLogSource[] = "wget";
constexpr char kVariable[] = "WGETRC";
// wget's exit statuses. The last is also that for a redirect which it may not follow.
constexpr int kCannotWrite = 3;
constexpr int kBrokenOff = 4;
constexpr int kServerError = 8;
constexpr int kNotRun = -1;
constexpr int kSignalled = 128;
constexpr int kWhole = 200;  // The status of an answer that begins with the first byte.

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

// It goes on behind what is in the file. A server's own time would make that look old.
constexpr char kGoingOn[] = "continue = on\nuse_server_timestamps = off\n";

// wget's settings and the pipe for what it writes.
class Files {
 public:
  Files(const Url& url, bool goes_on) : settings_(memfd_create("wgetrc", MFD_CLOEXEC)) {
    std::array<int, 2> ends{};
    if (!settings_.IsOpen() || pipe2(ends.data(), O_CLOEXEC) != 0) {
      ThrowErrno("the settings for wget");
    }
    reader_ = base::Descriptor(ends[0]);
    writer_ = base::Descriptor(ends[1]);
    const std::string text = SettingsFor(url) + (goes_on ? kGoingOn : "");
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
    if (const std::optional<std::int64_t> rate = ReadOperatorSettings().download_rate_kib) {
      text += "limit_rate = " + std::to_string(*rate) + "k\n";
    }
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
  Download(std::string file, const std::function<int(const std::string&)>& run, bool goes_on)
      : file_(std::move(file)), run_(run), goes_on_(goes_on), server_(AskedServer()) {}

  DownloadResult Run(Url url) {
    for (int hop = 0; hop <= rules::kMostRedirects; ++hop) {
      const int exit_status = RunOnce(url);
      if (is_too_slow_ && !is_from_first_byte_ && exit_status != 0) {
        return TooSlow(exit_status, url);
      }
      const std::optional<std::string> redirect =
          exit_status == kServerError ? log_.Redirect() : std::nullopt;
      if (!redirect || Interrupt::Received() != 0) {
        LogFailure(exit_status);
        return {exit_status, "", DownloadFailure(url, exit_status, log_, file_)};
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

  /// Whether the server has sent all from the first byte on though less was asked for: the last
  /// Run() was ended at once then.
  bool IsFromFirstByte() const { return is_from_first_byte_; }
  /// Whether the failure of the last Run() is one for which another attempt comes to nothing.
  bool IsFinal(int exit_status) const {
    const bool was_ended = is_too_slow_ || exit_status < 0;
    return Interrupt::Received() != 0 || (was_ended && !is_from_first_byte_) ||
           exit_status == kCannotWrite || log_.Cause() == WgetCause::kNoRoom;
  }
  /// Whether anybody has been asked in it.
  bool HasAsked() const { return log_.HasSentRequest(); }

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
    const Files files(url, goes_on_);
    const ScopedVariable settings(kVariable, files.SettingsName());
    const ScopedVariable language("LC_ALL", "C");  // What it says is read.
    log_ = WgetLog();
    is_from_first_byte_ = false;
    const bool asks_for_rest = goes_on_ && SizeOf(file_) > 0;
    ProgramWatch watch([this, asks_for_rest] { return MustEnd(asks_for_rest); }, files.output(),
                       [this](std::string_view piece) { log_.Add(piece); });
    const int exit_status = run_(TextOf(url));
    watch.Stop();
    is_too_slow_ = watch.ended();
    return exit_status;
  }

  // wget would pass over what is in the file, and the file would not grow for long.
  bool MustEnd(bool asks_for_rest) {
    is_from_first_byte_ = asks_for_rest && log_.Status() == kWhole;
    return is_from_first_byte_ || pace_.IsTooSlow(std::chrono::steady_clock::now(), SizeOf(file_));
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
  const bool goes_on_;
  const std::optional<Url> server_;
  DownloadPace pace_{std::chrono::steady_clock::now(), goes_on_ ? SizeOf(file_) : 0};
  WgetLog log_;
  bool is_too_slow_ = false;
  bool is_from_first_byte_ = false;
};

// The attempts at one server to bring a package whose size and digest are known.
class Attempts {
 public:
  Attempts(const Url& url, Download& download, PartialDownload& partial)
      : url_(url), download_(download), partial_(partial), was_there_(partial.Received() > 0) {}

  DownloadResult Run() {
    while (true) {
      Try();
      switch (Decide()) {
        case Next::kEnd:
          result_.received_bytes = received_;
          return result_;
        case Next::kGoOn:
          TellBreak();
          PauseUnlessInterrupted(std::min(attempt_, rules::kMostSecondsBetweenAttempts));
          break;
        case Next::kBeginAnew:
          BeginAnew("does not go on with");
          partial_.BeginAnew();
          break;
        case Next::kForget:
          BeginAnew("does not have the rest of");
          partial_.Forget();
          break;
      }
    }
  }

 private:
  enum class Next { kEnd, kGoOn, kBeginAnew, kForget };

  void Try() {
    const std::uint64_t before = partial_.Received();
    is_continued_ = is_continued_ || before > 0;
    ++attempt_;
    const bool is_there = before == partial_.Bytes();  // When it was cut short behind its end.
    const DownloadResult result = is_there ? DownloadResult{0, ""} : download_.Run(url_);
    const std::uint64_t after = partial_.Received();
    gained_ = after > before ? after - before : 0;
    received_ += gained_;
    // What is said of a server that breaks off is that, also where it cannot go on besides.
    if (!download_.IsFromFirstByte() || attempt_ == 1 || result.exit_status == 0) {
      result_ = result;
    }
  }

  Next Decide() {
    if (result_.exit_status == 0) {
      return AcceptWhole() ? Next::kEnd : Next::kForget;
    }
    if (result_.exit_status == kSignalled + SIGXFSZ) {
      return AfterTooMuch();
    }
    if (download_.IsFinal(result_.exit_status)) {
      return Next::kEnd;
    }
    if (result_.exit_status == kBrokenOff && gained_ > 0 &&
        attempt_ < rules::kMostDownloadAttempts) {
      return Next::kGoOn;
    }
    // It may have been faster than its end.
    const bool has_refused = (gained_ == 0 && download_.HasAsked() && result_.reason.empty()) ||
                             download_.IsFromFirstByte();
    return has_refused && MayBeginAnew() ? Next::kBeginAnew : Next::kEnd;
  }

  // What came in one piece is compared by who opens it.
  bool AcceptWhole() {
    if (is_continued_ && !has_begun_anew_ && !partial_.IsWhole(EndWhenInterrupted)) {
      return false;
    }
    partial_.Complete();
    return true;
  }

  // The server has more than the package has, or there is no more room.
  Next AfterTooMuch() {
    if (partial_.Received() < partial_.Bytes()) {
      return Next::kEnd;
    }
    if (MayBeginAnew()) {
      return Next::kForget;
    }
    partial_.Forget();
    return Next::kEnd;
  }

  // A failure that a download from zero, of this run, has had need not be had again.
  bool MayBeginAnew() const { return was_there_ && !has_begun_anew_; }

  void BeginAnew(const char* why) {
    has_begun_anew_ = true;
    const std::string line = OriginOf(url_) + ' ' + why + " what was received before, " +
                             base::HumanSize(partial_.Received()) + "; it is downloaded anew";
    syslog(LOG_NOTICE, "%s:%d %s", TOLM_LOG_HERE, line.c_str());
    TellRoad(line);
  }

  void TellBreak() const {
    const std::string line = OriginOf(url_) + " has broken off at " +
                             base::HumanSize(partial_.Received()) + " of " +
                             base::HumanSize(partial_.Bytes()) + "; the download goes on there";
    syslog(LOG_INFO, "%s:%d %s", TOLM_LOG_HERE, line.c_str());
    TellRoad(line);
  }

  const Url& url_;
  Download& download_;
  PartialDownload& partial_;
  const bool was_there_;  // From an earlier run, or another server.
  bool is_continued_ = false;
  bool has_begun_anew_ = false;
  int attempt_ = 0;
  std::uint64_t gained_ = 0;
  std::uint64_t received_ = 0;
  DownloadResult result_{kNotRun, ""};
};

}  // namespace

std::string RefusalOfLink(const std::string& url) {
  if (AskedSource() && AskedSource()->kind == Source::Kind::kDirectory) {
    return "";
  }
  return LinkRefusal("its link", ParseUrl(url), AskedServer(), ConfiguredServer());
}

DownloadResult RunGuarded(const std::string& url, const std::string& file,
                          const std::function<int(const std::string& url)>& run,
                          PartialDownload* partial) {
  const bool goes_on = partial != nullptr && partial->IsKept();
  try {
    const std::optional<Url> parsed = ParseUrl(url);
    if (!parsed) {
      const std::string refusal = RefusalOfLink(url);
      return {kNotRun, refusal, {reasons::kLinkRefused, refusal}};
    }
    Download download(file, run, goes_on);
    if (goes_on) {
      const DownloadResult result = Attempts(*parsed, download, *partial).Run();
      partial->Settle();
      return result;
    }
    DownloadResult result = download.Run(*parsed);
    result.received_bytes = SizeOf(file);
    return result;
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d %s", TOLM_LOG_HERE, error.what());
    return {kNotRun, error.what(), FailureOf(error)};
  }
}

}  // namespace tolm::operation
