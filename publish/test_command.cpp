#include "publish/test_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <sstream>

#include "base/descriptor.h"
#include "package/error.h"
#include "publish/program.h"

namespace tolm::publish {
namespace {

using base::Descriptor;
using package::Code;

constexpr std::size_t kMaxLines = 20;
constexpr std::size_t kMaxBytes = 4000;
constexpr int kGraceMilliseconds = 2000;

// Signals as something that can be waited for, in this thread, until the end of this object.
class CaughtSignals {
 public:
  CaughtSignals() {
    sigset_t caught;
    sigemptyset(&caught);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(&caught, signal);
    }
    // Before the other, so that none is lost in between.
    pthread_sigmask(SIG_BLOCK, &caught, &before_);
    file_ = Descriptor(::signalfd(-1, &caught, SFD_CLOEXEC | SFD_NONBLOCK));
  }
  ~CaughtSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  CaughtSignals(const CaughtSignals&) = delete;
  CaughtSignals& operator=(const CaughtSignals&) = delete;

  int File() const { return file_.Get(); }

  // The next one that means the end; 0 when there is none at present.
  int Take() const {
    signalfd_siginfo info{};
    while (::read(file_.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      if (info.ssi_signo != static_cast<unsigned>(SIGCHLD)) {
        return static_cast<int>(info.ssi_signo);
      }
    }
    return 0;
  }

 private:
  sigset_t before_{};
  Descriptor file_;
};

class Run {
 public:
  explicit Run(const TestCommand& test) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
      throw package::SystemError(Code::kInternal, "pipe", errno);
    }
    reader_ = Descriptor(ends[0]);
    const Descriptor writer(ends[1]);
    // The command's end waits for its reader, as anybody expects.
    ::fcntl(writer.Get(), F_SETFL, 0);
    ProgramRun run;
    run.arguments = {"-c", test.command, "sh", test.directory};
    run.output = writer.Get();
    run.set = {"NAME=" + test.name, "VERSION=" + std::to_string(test.version),
               "TREE=" + test.directory};
    run.directory = test.directory;
    run.own_group = true;
    pid_ = StartProgram({"/bin/sh", "dash"}, run, writer.Get());
  }
  // Whatever it has left behind in its group would go on in a directory that is no more.
  ~Run() { ::kill(-pid_, SIGKILL); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // Returns the status that waitpid() tells.
  int WaitForEnd() {
    int signal = 0;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) != pid_) {
      std::array<pollfd, 2> waited = {{{signals_.File(), POLLIN, 0}, {reader_.Get(), POLLIN, 0}}};
      // Nothing but its end is waited for when everybody has closed the pipe.
      const nfds_t count = is_open_ ? 2 : 1;
      if (::poll(waited.data(), count, signal == 0 ? -1 : kGraceMilliseconds) == 0) {
        ::kill(-pid_, SIGKILL);
      }
      ReadOutput();
      if (const int taken = signals_.Take(); taken != 0) {
        ::kill(-pid_, signal == 0 ? SIGTERM : SIGKILL);
        signal = taken;
      }
    }
    ReadOutput();
    if (signal != 0) {
      throw Interrupted{signal};
    }
    return status;
  }

  const std::string& Output() const { return output_; }

 private:
  void ReadOutput() {
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    while ((count = ::read(reader_.Get(), buffer.data(), buffer.size())) > 0) {
      output_.append(buffer.data(), static_cast<std::size_t>(count));
      output_.erase(0, output_.size() - std::min(output_.size(), kMaxBytes));
    }
    is_open_ = count < 0;
  }

  const CaughtSignals signals_;
  Descriptor reader_;
  pid_t pid_ = 0;
  bool is_open_ = true;
  std::string output_;
};

void AppendLastLines(const std::string& output, std::vector<std::string>& lines) {
  const std::size_t first = lines.size();
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    lines.push_back("  " + line);
    if (lines.size() - first > kMaxLines) {
      lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(first));
    }
  }
}

}  // namespace

std::vector<std::string> RunTestCommand(const TestCommand& test) {
  Run run(test);
  const int status = run.WaitForEnd();
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
    return {};
  }
  std::vector<std::string> lines = {
      "its test " + (WIFEXITED(status)
                         ? "failed with status " + std::to_string(WEXITSTATUS(status))
                         : "was ended by signal " + std::to_string(WTERMSIG(status)))};
  AppendLastLines(run.Output(), lines);
  return lines;
}

}  // namespace tolm::publish
