#ifndef TOLM_SUPPORT_CHILD_PROCESS_H_
#define TOLM_SUPPORT_CHILD_PROCESS_H_

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/unique_descriptor.h"

namespace tolm::testing {

/// A process of which this one is the parent. All members throw std::system_error when the system
/// refuses.
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  /// Ends the process by SIGKILL when it has not been waited for.
  ~Child();
  Child(Child&& other) noexcept;
  Child& operator=(Child&&) = delete;

  pid_t Pid() const { return pid_; }
  void Signal(int signal) const;
  /// Waits for the end: the exit status, or 128 + the number of the signal that ended it. Once
  /// only.
  int Wait();
  /// Whether it has not ended yet. Never waits.
  bool IsRunning() const;

 private:
  pid_t pid_;  // -1: none, or waited for.
};

/// One end of a two-way line between two processes that carries whole messages.
class EventChannel {
 public:
  explicit EventChannel(UniqueDescriptor socket) : socket_(std::move(socket)) {}

  /// The message must not be empty. Throws std::system_error when the other side has gone.
  void Send(const std::string& message) const;
  /// Waits for a message of at most 64 KiB; nothing when the other side has gone. Throws
  /// std::runtime_error after a minute without either.
  std::optional<std::string> Receive() const;

 private:
  UniqueDescriptor socket_;
};

/// A function running in a forked process. Fork before threads are started: only the calling thread
/// goes along.
///
///   ForkedChild holder([](EventChannel& parent) {
///     FileLock lock("/run/x");
///     parent.Send("held");
///     parent.Receive();  // Holds until the parent says something or ends.
///     return 0;
///   });
///   ASSERT_EQ(holder.Channel().Receive(), "held");
class ForkedChild {
 public:
  /// What it returns is the exit status; an exception is printed and makes it 125.
  using Body = std::function<int(EventChannel& parent)>;
  explicit ForkedChild(const Body& body) : ForkedChild(Start(body)) {}

  EventChannel& Channel() { return channel_; }
  Child& Process() { return child_; }

 private:
  struct Parts {
    EventChannel channel;
    Child child;
  };
  explicit ForkedChild(Parts parts)
      : channel_(std::move(parts.channel)), child_(std::move(parts.child)) {}
  static Parts Start(const Body& body);

  EventChannel channel_;
  Child child_;
};

struct CommandOptions {
  std::vector<std::string>
      environment;  ///< "NAME=value", in addition to or in place of this process's.
  std::filesystem::path working_directory;
  std::string input;  ///< For standard input.
};

struct CommandResult {
  int exit_status;  ///< Or 128 + signal.
  std::string out;
  std::string err;
};

/// A program running in a process group of its own, with its output kept.
class RunningCommand {
 public:
  /// The program is looked for along PATH. Throws std::system_error when it cannot be run.
  explicit RunningCommand(const std::vector<std::string>& arguments,
                          const CommandOptions& options = {});

  Child& Process() { return child_; }
  /// What it has written so far.
  std::string Out() const;
  std::string Err() const;
  /// Waits for the end. Once only.
  CommandResult Wait();

 private:
  UniqueDescriptor out_;
  UniqueDescriptor err_;
  Child child_;
};

/// Whether the process has the file open at this moment. Whoever waits for a lock has.
bool HasOpen(pid_t process, const std::filesystem::path& file);

/// Runs the program to its end.
CommandResult RunCommand(const std::vector<std::string>& arguments,
                         const CommandOptions& options = {});

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_CHILD_PROCESS_H_
