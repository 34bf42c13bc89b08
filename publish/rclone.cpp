#include "publish/rclone.h"

#include <fcntl.h>
#include <json/value.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>

#include "base/descriptor.h"
#include "base/utf8.h"
#include "package/error.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/program.h"

namespace tolm::publish {
namespace {

using base::Descriptor;
using package::Code;

constexpr std::size_t kMostErrors = 3;
constexpr std::size_t kMostErrorBytes = 500;
constexpr std::size_t kMostLineBytes = 64 * 1024;
// A shorter value would take too much else out of a message.
constexpr std::size_t kLeastSecretBytes = 3;
// What a message may tell, unless it holds a user's name and what follows.
const std::set<std::string> kToBeTold = {"url",    "host",     "port", "vendor",  "provider",
                                         "region", "endpoint", "type", "key_file"};
// How setpriv ends when it finds no such program.
constexpr int kNotFound = 127;

// One "key=value" of a connection string, from @p at on; @p at becomes its end.
std::string ParameterAt(const std::string& text, std::size_t& at) {
  std::string parameter;
  char quote = 0;
  for (; at < text.size(); ++at) {
    const char c = text[at];
    if (quote == 0 && (c == ',' || c == ':')) {
      break;
    }
    if (c == quote) {
      const bool is_doubled = at + 1 < text.size() && text[at + 1] == quote;
      if (is_doubled) {
        parameter += c;
        ++at;
      } else {
        quote = 0;
      }
    } else if (quote == 0 && (c == '\'' || c == '"') && !parameter.empty() &&
               parameter.back() == '=') {
      quote = c;
    } else {
      parameter += c;
    }
  }
  return parameter;
}

void ReplaceAll(std::string& text, const std::string& what, const std::string& by) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) {
    text.replace(at, what.size(), by);
    at += by.size();
  }
}

// rclone's log, line by line.
class LogReader {
 public:
  LogReader(const std::function<void(std::uint64_t)>& transferred, RcloneEnd& end)
      : transferred_(transferred), end_(end) {}

  void Add(const char* data, std::size_t size) {
    rest_.append(data, size);
    std::size_t begin = 0;
    for (std::size_t at = rest_.find('\n'); at != std::string::npos; at = rest_.find('\n', begin)) {
      Take(rest_.substr(begin, at - begin));
      begin = at + 1;
    }
    rest_.erase(0, begin);
    if (rest_.size() > kMostLineBytes) {
      rest_.clear();
    }
  }
  void Finish() {
    if (!rest_.empty()) {
      Take(rest_);
    }
  }

 private:
  void Take(const std::string& line) {
    Json::Value value;
    try {
      value = ParseJson(line, "rclone");
    } catch (const Error&) {
      TakePlain(line);
      return;
    }
    if (!value.isObject() || !value["msg"].isString() || !value["level"].isString()) {
      return;
    }
    const std::string message = value["msg"].asString();
    if (message.find("could not be checked") != std::string::npos) {
      end_.has_uncompared = true;
    }
    if (const Json::Value& stats = value["stats"]; stats.isObject()) {
      if (transferred_ && stats["bytes"].isUInt64()) {
        transferred_(stats["bytes"].asUInt64());
      }
    } else if (value["level"].asString() == "error") {
      const Json::Value& object = value["object"];
      AddError((object.isString() && !object.asString().empty() ? object.asString() + ": " : "") +
               message);
    }
  }

  // "2026/01/31 23:59:59 Failed to ...": what it tells before it logs as it was asked to.
  void TakePlain(const std::string& line) {
    constexpr std::size_t kTimeBytes = sizeof "2026/01/31 23:59:59 " - 1;
    const bool has_time = line.size() > kTimeBytes && line[4] == '/' && line[7] == '/';
    const std::string message = has_time ? line.substr(kTimeBytes) : line;
    if (message.find_first_not_of(" \t\r") != std::string::npos &&
        message.compare(0, 7, "NOTICE:") != 0) {
      AddError(message);
    }
  }

  void AddError(std::string message) {
    if (message.compare(0, 8, "Attempt ") == 0) {  // "1/3 failed with 1 errors and: ..."
      return;
    }
    if (message.size() > kMostErrorBytes) {
      message.resize(kMostErrorBytes);
    }
    if (std::find(end_.errors.begin(), end_.errors.end(), message) != end_.errors.end()) {
      return;
    }
    end_.errors.push_back(std::move(message));
    if (end_.errors.size() > kMostErrors) {
      end_.errors.erase(end_.errors.begin());
    }
  }

  const std::function<void(std::uint64_t)>& transferred_;
  RcloneEnd& end_;
  std::string rest_;
};

int StatusOf(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      throw package::SystemError(Code::kInternal, "waitpid", errno);
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The environment may say something else of each (RCLONE_SIZE_ONLY), and what is told, or what is
// proved, would not be what is relied on here.
const std::vector<std::string> kAlways = {"--use-json-log",
                                          "--log-level",
                                          "NOTICE",
                                          "--stats-log-level",
                                          "NOTICE",
                                          "--stats",
                                          "500ms",
                                          "--ask-password=false",
                                          "--log-file=",
                                          "--progress=false",
                                          "--quiet=false",
                                          "--verbose=0",
                                          "--size-only=false",
                                          "--ignore-existing=false"};

const Program kRclone = {"rclone", "rclone"};
const Program kSetpriv = {"setpriv", "util-linux"};

}  // namespace

RemoteText TakeApart(const std::string& remote) {
  RemoteText text{remote, {}};
  // A folder may have a comma in its name; a colon behind a slash is one of a name, too.
  const std::size_t comma = remote.find_first_of(",:/", 1);
  if (comma == std::string::npos || remote[comma] != ',') {
    return text;
  }
  std::size_t at = comma;
  while (at < remote.size() && remote[at] == ',') {
    const std::string parameter = ParameterAt(remote, ++at);
    const std::size_t sign = parameter.find('=');
    const std::string value = sign == std::string::npos ? "" : parameter.substr(sign + 1);
    const bool is_told =
        kToBeTold.count(parameter.substr(0, sign)) != 0 && value.find('@') == std::string::npos;
    if (value.size() >= kLeastSecretBytes && !is_told) {
      text.secrets.push_back(value);
    }
  }
  if (at < remote.size()) {
    text.secrets.insert(text.secrets.begin(), remote.substr(comma, at - comma));
  }
  text.shown = remote.substr(0, comma) + remote.substr(std::min(at, remote.size()));
  return text;
}

std::string WithoutSecrets(std::string text, const RemoteText& remote) {
  for (const std::string& secret : remote.secrets) {
    ReplaceAll(text, secret, secret.front() == ',' ? "" : "...");
  }
  return text;
}

std::string RemotePath(const std::string& remote, const std::string& relative) {
  const bool needs_slash = remote.back() != ':' && remote.back() != '/';
  return remote + (needs_slash ? "/" : "") + relative;
}

RcloneEnd RunRclone(const RcloneRun& run) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw package::SystemError(Code::kInternal, kRclone.name, errno);
  }
  const Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  const Descriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  ProgramRun program;
  program.arguments = {"--pdeathsig", "KILL", kRclone.name};
  program.arguments.insert(program.arguments.end(), run.arguments.begin(), run.arguments.end());
  program.arguments.insert(program.arguments.end(), kAlways.begin(), kAlways.end());
  program.output = run.output < 0 ? nowhere.Get() : run.output;
  program.input = run.input;
  const pid_t pid = StartProgram(kSetpriv, program, writer.Get());
  writer = Descriptor();
  RcloneEnd end;
  LogReader log(run.transferred, end);
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t count = ::read(reader.Get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      break;
    }
    log.Add(buffer.data(), static_cast<std::size_t>(count));
  }
  log.Finish();
  end.exit_status = StatusOf(pid);
  if (end.exit_status == kNotFound) {
    ThrowNotInstalled(kRclone);
  }
  return end;
}

}  // namespace tolm::publish
