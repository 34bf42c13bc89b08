#ifndef TOLM_TOOLS_TOLMDBUD_CLI_H_
#define TOLM_TOOLS_TOLMDBUD_CLI_H_

#include <json/value.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "operation/failure.h"
#include "operation/service.h"
#include "operation/survey.h"
#include "operation/taken_from.h"
#include "tools/command_line.h"

/// What the commands of tolmdbud have in common: their exit statuses, their options and how they
/// speak.
namespace tolm::tool {

/// Stable: programs rely on them. They stand in --help as well.
enum ExitStatus {
  kSuccess = 0,
  kFailure = 1,
  kUsage = 2,
  kUpdateOffered = 10,
  kDamaged = 11,
  kNoVolume = 12,
  kBusy = 13,
  kCannotExecute = 126,
  kCommandNotFound = 127,
  kSignal = 128  ///< And the signal's number.
};

/// The options that every command takes.
struct Options {
  bool json = false;
  /// 1: what is done is told on standard error; 2: the lines of the system log appear there, too.
  int verbosity = 0;
  bool quiet = false;        ///< Nothing but failures is said.
  mode_t callers_umask = 0;  ///< For a program of the caller's own.
};

/// Speaks to the person or program that called. Results go to standard output: as lines, or with
/// --json as one document at the end, which Finish prints. Warnings and failures are one line each
/// on standard error, the same with and without --json, and stand in the document besides.
class Console {
 public:
  explicit Console(const Options& options);

  const Options& GetOptions() const { return options_; }
  /// Whether standard output or standard error is a terminal that shows colours, and these are
  /// wanted (neither NO_COLOR nor TERM=dumb).
  bool HasColoursOnOutput() const { return colours_on_output_; }
  bool HasColoursOnError() const { return colours_on_error_; }

  /// A line of the result; nothing with --json or --quiet.
  void Say(const std::string& line) const;
  /// "tolmdbud: <what>"; nothing with --quiet.
  void Warn(const std::string& what);
  /// "tolmdbud: <context> ...", with the failure's cause, place and remedy.
  void Fail(const std::string& context, const operation::Failure& failure);
  /// The same for what this program alone knows the reason of, one of operation::reasons.
  void Fail(const std::string& context, const char* reason, const std::string& what) {
    Fail(context, operation::Failure{reason, what});
  }
  bool HasFailed() const { return !failures_.empty(); }
  /// Runs the action and says on one line why it failed, when it did. Interrupted is passed on.
  bool Succeeds(const std::string& context, const std::function<void()>& action);

  /// "tolmdbud: <what>", now and not in the document: what somebody who waits wants to know. Any
  /// thread may call it.
  void Inform(const std::string& what) const;
  /// What is done, a line each; with --verbose only.
  void Tell(const std::string& line) const;
  /// A line of the system log; with --verbose twice only.
  void Log(int priority, const std::string& line) const;

  /// The document's members, to be filled by the command; printed with --json only.
  Json::Value& Document() { return document_; }
  /// Prints the document of --json, with its common members. To be called once, at the end.
  void Finish(const std::string& command, int exit_status);

 private:
  Options options_;
  bool colours_on_output_;
  bool colours_on_error_;
  Json::Value document_;
  Json::Value warnings_;
  Json::Value failures_;
  Json::Value reasons_;
};

using Command = std::function<int(Console&, const operation::Service&)>;

/// The command that was chosen on the command line, with its options.
struct Choice {
  std::string name;
  Command command;
  Options options;
};

enum class Output { kOwn, kOfTheProgramThatItRuns };

/// Whose rights a command needs; told in its help.
enum class Rights { kRoot, kRootToSet, kRootToAskTheServer, kAnyone };

/// As an element of "reasons": its code, and the server's status where that is the reason.
Json::Value ToJson(const operation::Failure& failure);

/// Adds a command, which is the choice when the command line names it. `examples` are whole lines,
/// without indentation. One whose standard output belongs to another program has no --json.
CommandSyntax AddCommand(CommandSyntax parent, Choice& choice, const std::string& name,
                         const std::string& help, const std::vector<std::string>& examples,
                         const Command& command, Output output = Output::kOwn,
                         Rights rights = Rights::kRoot);

/// Of two exit statuses the one that a command ends with that met both: a failure before no volume,
/// before damage, before an offered update, before success.
int Worse(int one, int other);

/// Runs what asks the server. A signal ends it with Interrupted, is told, and gives the exit
/// status.
int Interruptible(Console& console, const std::function<int()>& action);

/// Warns of what is amiss with the files of settings, of the databases that the override file
/// hides, or of both.
void WarnOfSettingsFiles(Console& console);
void WarnOfHiddenDatabases(Console& console);
void WarnOfSettings(Console& console);

/// The same of both for commands that go on all the same. False when there is something with which
/// no operation begins: that is told as a failure, and has to be one of the command.
bool ReportSettings(Console& console);

/// Behind what is said of the server's offers: when they were asked for, in local time. Empty when
/// this process has asked.
std::string AsOfText();
/// The same for programs: in UTC, or null when nobody knows.
Json::Value OffersFrom();

/// The databases that were named, or all configured ones. Throws UpdateError.
std::vector<std::string> NamedOrAll(const operation::Service& service,
                                    const std::vector<std::string>& names);

/// Of the offers of that description, or where there is none, of the cached one, whatever its time.
std::optional<operation::OffersSignature> SignatureOf(
    const std::optional<operation::Description>& description);
/// "by repository 3f9c..., issued 2026-11-22 10:00 UTC, valid until 2026-12-06 10:00 UTC", or since
/// when it counts no more.
std::string SignatureText(const operation::OffersSignature& signature, std::int64_t now);
/// The same for programs; null for offers that are not signed.
Json::Value SignatureJson(const std::optional<operation::OffersSignature>& signature,
                          std::int64_t now);

/// What a version that does not reach all devices at once means for this one, for programs; null
/// where there is none.
Json::Value RolloutJson(const std::optional<operation::Rollout>& rollout);
/// Adds --from to a command that asks for offers.
void AddFrom(CommandSyntax command, std::optional<std::string>& place);
/// What that has named is taken from as long as this exists; null where it was not given. Throws
/// std::runtime_error for what is no such place.
std::unique_ptr<operation::TakenFrom> TakeFrom(const std::optional<std::string>& place);

/// Each adds a group of commands.
void AddStart(CommandSyntax app, Choice& choice);       // init
void AddLooking(CommandSyntax app, Choice& choice);     // list, status, busy
void AddDoctor(CommandSyntax app, Choice& choice);      // doctor
void AddCheck(CommandSyntax app, Choice& choice);       // check
void AddVerify(CommandSyntax app, Choice& choice);      // verify
void AddOperations(CommandSyntax app, Choice& choice);  // update, fix, force-install
void AddSchedule(CommandSyntax app, Choice& choice);    // schedule
void AddReaderLock(CommandSyntax app, Choice& choice);  // lock
void AddDirectory(CommandSyntax app, Choice& choice);   // directory
void AddTrust(CommandSyntax app, Choice& choice);       // trust show, lower, reset
void AddVolume(CommandSyntax app, Choice& choice);      // volume show, mounted, unmounting

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_TOLMDBUD_CLI_H_
