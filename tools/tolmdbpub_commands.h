#ifndef TOLM_TOOLS_TOLMDBPUB_COMMANDS_H_
#define TOLM_TOOLS_TOLMDBPUB_COMMANDS_H_

#include <chrono>
#include <functional>
#include <string>

#include "publish/pack.h"
#include "publish/release.h"
#include "publish/remote_check.h"
#include "tools/command_line.h"

/// The commands of tolmdbpub. Each prints its result on standard output, and throws what went
/// wrong; main says it in one line.
namespace tolm::tool {

/// Stable: programs rely on them.
enum ExitStatus {
  kSuccess = 0,
  kFailure = 1,
  kUsage = 2,
  kEndsSoon = 3  ///< check: in order, but a certificate ends soon
};

/// keygen, pack, inspect, unpack.
void AddPackageCommands(CommandSyntax app);
/// release. When it is refused because of the files, says why and leaves kFailure in @p status.
void AddReleaseCommand(CommandSyntax app, int& status);
/// withdraw.
void AddWithdrawCommand(CommandSyntax app);
/// rollout show, hold, resume, stop and finish.
void AddRolloutCommands(CommandSyntax app);
/// init, list, page, diff, check, prune, deprecate, remove, resign, set. A command that finds
/// something wrong without failing itself says so and leaves kFailure in @p status.
void AddRepositoryCommands(CommandSyntax app, int& status);
/// refresh, upgrade.
void AddDescriptionCommands(CommandSyntax app);
/// push.
void AddPushCommand(CommandSyntax app);
/// serve, install-config.
void AddServingCommands(CommandSyntax app);

/// "check --remote": prints what was found, and returns the exit status.
int CheckRemoteNow(const publish::RemoteCheckRequest& request);

/// "tolmdbpub: <text>" on standard error.
void PrintError(const std::string& text);
/// "tolmdbpub: note: <text>" on standard error.
void PrintNote(const std::string& text);

/// Adds the positional option that every command on a repository begins with.
void AddRepositoryOption(CommandSyntax command, std::string& repository);

/// What is done with how packages are to be packed.
struct PackingTakers {
  std::function<void(package::CompressionChoice)> compression;
  std::function<void(int mebibytes)> window;
};

/// Adds --compression and --compression-window.
void AddPackingOptions(CommandSyntax options, const PackingTakers& takers);

/// Adds --passphrase-file to a command that loads the key of a root.
CommandOption AddPassphraseOption(CommandSyntax command, std::string& file);

/// Shows on a terminal, and only there, how far a command has come; clears its line at the end.
class ProgressLine {
 public:
  ProgressLine();
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void Show(const publish::Step& step);
  /// Prints a note on a line of its own.
  void Note(const std::string& text);

 private:
  void Clear();

  bool on_terminal_;
  std::string text_;  // what stands there
  std::chrono::steady_clock::time_point shown_at_;
};

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_TOLMDBPUB_COMMANDS_H_
