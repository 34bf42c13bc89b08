#ifndef TOLM_TOOLS_COMMAND_LINE_H_
#define TOLM_TOOLS_COMMAND_LINE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

/// What a program takes on its command line: commands, options and what is wrong with their values.
/// Its source alone knows the library that parses, the templates of which take long to compile.
///
/// A CommandLine owns all; CommandSyntax and CommandOption are handles, to be copied, that are good
/// as long as it is. What a handle is given to fill (references) must live as long as parsing does.
namespace tolm::tool {

/// An option, or a positional one. Every function returns the option itself.
class CommandOption {
 public:
  explicit CommandOption(CLI::Option* option) : option_(option) {}

  CommandOption Required() const;
  /// The value that it fills has one before: help shows it.
  CommandOption ShowDefault() const;
  /// The value is a number, the bounds included.
  CommandOption InRange(int least, int most) const;
  CommandOption OneOf(const std::vector<std::string>& words) const;
  /// @p problem_of returns what is wrong with a value; nothing when it is good.
  CommandOption Check(const std::function<std::string(const std::string& value)>& problem_of) const;
  /// Who gives this one has to give the other as well, or must not.
  CommandOption Needs(CommandOption other) const;
  CommandOption Excludes(CommandOption other) const;

  /// To be asked when the command line has been parsed.
  bool IsGiven() const;

 private:
  CLI::Option* option_;
};

/// What the program itself, one of its commands or a group of options takes. Names are "--long",
/// "-s,--long", or "NAME" for a positional option.
class CommandSyntax {
 public:
  explicit CommandSyntax(CLI::App* syntax) : syntax_(syntax) {}

  CommandSyntax AddCommand(const std::string& name, const std::string& help) const;
  /// Options that help shows together under @p title.
  CommandSyntax AddGroup(const std::string& title) const;

  CommandOption AddFlag(const std::string& names, bool& is_given, const std::string& help) const;
  CommandOption AddFlag(const std::string& names, int& times, const std::string& help) const;
  CommandOption AddOption(const std::string& names, std::string& value,
                          const std::string& help) const;
  CommandOption AddOption(const std::string& names, std::vector<std::string>& values,
                          const std::string& help) const;
  CommandOption AddOption(const std::string& names, int& value, const std::string& help) const;
  CommandOption AddOption(const std::string& names, std::uint32_t& value,
                          const std::string& help) const;
  CommandOption AddOption(const std::string& names, std::optional<int>& value,
                          const std::string& help) const;
  CommandOption AddOption(const std::string& names, std::optional<std::string>& value,
                          const std::string& help) const;
  /// @p take is called with a value that has passed the option's checks.
  CommandOption AddOption(const std::string& names,
                          const std::function<void(const std::string& value)>& take,
                          const std::string& help) const;

  /// One that was added; a name that was not is a mistake of the program, and throws.
  CommandSyntax GetCommand(const std::string& name) const;
  CommandOption GetOption(const std::string& name) const;
  /// Its name behind those of the commands above it: "volume show".
  std::string GetPath() const;

  /// Stands below all other help.
  void SetFooter(const std::string& text) const;
  /// One of its commands has to be named; of its options at least one given.
  void RequireCommand() const;
  void RequireAnOption() const;

  /// @p look is called when its options have been parsed; it may throw WrongUsage.
  void OnParsed(const std::function<void()>& look) const;
  /// @p act is called when it was named and the whole command line is right. What it throws
  /// Parse lets pass.
  void OnChosen(const std::function<void()>& act) const;

 private:
  CLI::App* syntax_;
};

/// A command line that is not right; what() says why, without the program's name.
class WrongUsage : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A program's whole command line, with --help and --version. Names at most one command.
class CommandLine {
 public:
  /// Without a @p name help shows the one that the program was called by. @p version is a line.
  CommandLine(const std::string& description, const std::string& name, const std::string& version);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  CommandSyntax Syntax() const;

  enum class Result { kNoCommand, kCommand, kAnswered };
  /// Fills what the options refer to and calls what was to be called. kAnswered: help or version
  /// was asked for and has been printed; nothing else is to be done. Throws WrongUsage.
  Result Parse(int argc, const char* const* argv);

 private:
  std::unique_ptr<CLI::App> app_;
};

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_COMMAND_LINE_H_
