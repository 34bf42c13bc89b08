#include "publish/web_fetch.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <sstream>
#include <vector>

#include "base/descriptor.h"
#include "package/error.h"
#include "publish/memory_file.h"
#include "publish/program.h"

namespace tolm::publish {
namespace {

using base::Descriptor;

constexpr std::size_t kPieceBytes = 64 * 1024;
const Program kWget = {"wget", "wget"};

std::string Small(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// wget's lines: a server's are indented by two blanks, and begin anew with each answer.
void ReadLog(const std::string& log, WebAnswer& answer) {
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
      line.pop_back();
    }
    if (line.compare(0, 7, "  HTTP/") == 0) {
      answer.headers.clear();
      const std::size_t blank = line.find(' ', 2);
      if (blank != std::string::npos) {
        std::from_chars(line.data() + blank + 1, line.data() + line.size(), answer.status);
      }
    } else if (const std::size_t colon = line.find(": ");
               line.compare(0, 2, "  ") == 0 && colon != std::string::npos) {
      answer.headers[Small(line.substr(2, colon - 2))] = line.substr(colon + 2);
    } else if (!line.empty() && line.front() != ' ') {
      answer.problem = line;
    }
  }
}

WebAnswer Ask(const std::string& url, const std::vector<std::string>& options,
              const WebTaker& take) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw package::SystemError(package::Code::kInternal, kWget.name, errno);
  }
  Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  const MemoryFile log(kWget.name);
  ProgramRun run;
  run.arguments = {"--no-config",
                   "-nv",
                   "-S",
                   "-U",
                   "tolmdbpub",
                   "--dns-timeout=8",
                   "--connect-timeout=15",
                   "--read-timeout=60",
                   "--tries=3"};
  run.arguments.insert(run.arguments.end(), options.begin(), options.end());
  run.arguments.push_back(url);
  run.output = writer.Get();
  run.set = {"LC_ALL=C"};
  const pid_t pid = StartProgram(kWget, run, log.Get());
  writer = Descriptor();
  bool is_wanted = true;
  std::vector<char> piece(kPieceBytes);
  while (is_wanted) {
    const ssize_t count = ::read(reader.Get(), piece.data(), piece.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      break;
    }
    is_wanted = take(piece.data(), static_cast<std::size_t>(count));
  }
  reader = Descriptor();  // Which ends a wget that is not wanted any more.
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  WebAnswer answer;
  ReadLog(log.Content(), answer);
  answer.is_complete = is_wanted && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!answer.is_complete && answer.status >= 400) {
    answer.problem = "the server answers with status " + std::to_string(answer.status);
  }
  return answer;
}

}  // namespace

WebAnswer FetchFromWeb(const std::string& url, const WebTaker& take) {
  return Ask(url, {"-O", "-"}, take);
}

WebAnswer LookAtWeb(const std::string& url) {
  return Ask(url, {"--spider"}, [](const char*, std::size_t) { return true; });
}

}  // namespace tolm::publish
