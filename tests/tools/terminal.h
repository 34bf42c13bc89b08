#ifndef TOLM_TESTS_TOOLS_TERMINAL_H_
#define TOLM_TESTS_TOOLS_TERMINAL_H_

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::testing {

/// A program on a terminal of its own, which is its standard input, output and error.
class TerminalCommand {
 public:
  /// "NAME=value" each, in place of this process's; "NAME" alone takes it away.
  TerminalCommand(const std::vector<std::string>& arguments, unsigned short columns,
                  const std::vector<std::string>& environment = {"TERM=xterm"})
      : child_(Start(arguments, columns, environment)), reader_([this] { Read(); }) {}
  ~TerminalCommand() {
    if (reader_.joinable()) {
      child_.Signal(SIGKILL);
      reader_.join();
    }
  }
  TerminalCommand(const TerminalCommand&) = delete;
  TerminalCommand& operator=(const TerminalCommand&) = delete;

  /// Everything that it has written so far.
  std::string Output() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return output_;
  }

  void Resize(unsigned short columns) const {
    const winsize size{24, columns, 0, 0};
    if (ioctl(terminal_.Get(), TIOCSWINSZ, &size) != 0) {
      throw std::system_error(errno, std::generic_category(), "TIOCSWINSZ");
    }
  }

  /// What a person types.
  void Type(const std::string& keys) const {
    if (write(terminal_.Get(), keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
      throw std::system_error(errno, std::generic_category(), "type");
    }
  }

  /// Waits for the end: the exit status, or 128 + signal. Once only.
  int Wait() {
    const int status = child_.Wait();
    reader_.join();
    return status;
  }

 private:
  Child Start(const std::vector<std::string>& arguments, unsigned short columns,
              const std::vector<std::string>& environment) {
    const std::vector<std::string> variables = Environment(environment);
    const std::vector<char*> argv = Pointers(arguments);
    const std::vector<char*> envp = Pointers(variables);
    const winsize size{24, columns, 0, 0};
    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == -1) {
      throw std::system_error(errno, std::generic_category(), "forkpty");
    }
    if (pid == 0) {
      execvpe(argv[0], argv.data(), envp.data());
      _exit(127);
    }
    fcntl(terminal, F_SETFD, FD_CLOEXEC);
    terminal_ = UniqueDescriptor(terminal);
    return Child(pid);
  }

  static std::string NameOf(const std::string& variable) {
    return variable.substr(0, variable.find('='));
  }

  // This process's, without the variables that are given, and these where they have values.
  static std::vector<std::string> Environment(const std::vector<std::string>& given) {
    std::vector<std::string> variables;
    for (char** inherited = environ; *inherited != nullptr; ++inherited) {
      const bool is_given = std::any_of(given.begin(), given.end(), [&](const std::string& name) {
        return NameOf(name) == NameOf(*inherited);
      });
      if (!is_given) {
        variables.emplace_back(*inherited);
      }
    }
    std::copy_if(given.begin(), given.end(), std::back_inserter(variables),
                 [](const std::string& name) { return NameOf(name) != name; });
    return variables;
  }

  static std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (const std::string& text : texts) {
      pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
  }

  // Until nobody has the terminal's other side open.
  void Read() {
    char bytes[4096];
    ssize_t count = 0;
    while ((count = read(terminal_.Get(), bytes, sizeof bytes)) > 0) {
      const std::lock_guard<std::mutex> lock(mutex_);
      output_.append(bytes, static_cast<std::size_t>(count));
    }
  }

  UniqueDescriptor terminal_;
  mutable std::mutex mutex_;
  std::string output_;
  Child child_;
  std::thread reader_;
};

/// What stands on a terminal, line by line, after it has shown this. Knows carriage return, line
/// feed and, on the last line, "erase to the end" of the line or of the screen; throws
/// std::runtime_error at any other control.
inline std::vector<std::string> Screen(const std::string& output) {
  const std::string erase_line = "\033[K";
  const std::string erase_below = "\033[J";
  std::vector<std::string> lines = {""};
  std::size_t column = 0;
  for (std::size_t i = 0; i < output.size(); ++i) {
    if (output[i] == '\r') {
      column = 0;
    } else if (output[i] == '\n') {
      lines.emplace_back();
      lines.back().resize(column, ' ');
    } else if (output.compare(i, 3, erase_line) == 0 || output.compare(i, 3, erase_below) == 0) {
      lines.back().resize(column, ' ');
      i += 2;
    } else if (output[i] < ' ') {
      throw std::runtime_error("control character " + std::to_string(output[i]));
    } else {
      lines.back().resize(std::max(lines.back().size(), column + 1), ' ');
      lines.back()[column++] = output[i];
    }
  }
  return lines;
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_TERMINAL_H_
