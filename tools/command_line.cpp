#include "tools/command_line.h"

#include <CLI/CLI.hpp>

namespace tolm::tool {

// ---- CommandOption ----

CommandOption CommandOption::Required() const {
  return CommandOption(option_->required());
}

CommandOption CommandOption::ShowDefault() const {
  return CommandOption(option_->capture_default_str());
}

CommandOption CommandOption::InRange(int least, int most) const {
  return CommandOption(option_->check(CLI::Range(least, most)));
}

CommandOption CommandOption::OneOf(const std::vector<std::string>& words) const {
  return CommandOption(option_->check(CLI::IsMember(words)));
}

CommandOption CommandOption::Check(
    const std::function<std::string(const std::string&)>& problem_of) const {
  return CommandOption(option_->check(problem_of));
}

CommandOption CommandOption::Needs(CommandOption other) const {
  return CommandOption(option_->needs(other.option_));
}

CommandOption CommandOption::Excludes(CommandOption other) const {
  return CommandOption(option_->excludes(other.option_));
}

bool CommandOption::IsGiven() const {
  return option_->count() > 0;
}

// ---- CommandSyntax ----

CommandSyntax CommandSyntax::AddCommand(const std::string& name, const std::string& help) const {
  return CommandSyntax(syntax_->add_subcommand(name, help));
}

CommandSyntax CommandSyntax::AddGroup(const std::string& title) const {
  return CommandSyntax(syntax_->add_option_group(title));
}

CommandOption CommandSyntax::AddFlag(const std::string& names, bool& is_given,
                                     const std::string& help) const {
  return CommandOption(syntax_->add_flag(names, is_given, help));
}

CommandOption CommandSyntax::AddFlag(const std::string& names, int& times,
                                     const std::string& help) const {
  return CommandOption(syntax_->add_flag(names, times, help));
}

CommandOption CommandSyntax::AddOption(const std::string& names, std::string& value,
                                       const std::string& help) const {
  return CommandOption(syntax_->add_option(names, value, help));
}

CommandOption CommandSyntax::AddOption(const std::string& names, std::vector<std::string>& values,
                                       const std::string& help) const {
  return CommandOption(syntax_->add_option(names, values, help));
}

CommandOption CommandSyntax::AddOption(const std::string& names, int& value,
                                       const std::string& help) const {
  return CommandOption(syntax_->add_option(names, value, help));
}

CommandOption CommandSyntax::AddOption(const std::string& names, std::uint32_t& value,
                                       const std::string& help) const {
  return CommandOption(syntax_->add_option(names, value, help));
}

CommandOption CommandSyntax::AddOption(const std::string& names, std::optional<int>& value,
                                       const std::string& help) const {
  return CommandOption(syntax_->add_option_function<int>(
      names, [&value](int given) { value = given; }, help));
}

CommandOption CommandSyntax::AddOption(const std::string& names, std::optional<std::string>& value,
                                       const std::string& help) const {
  return AddOption(
      names, [&value](const std::string& given) { value = given; }, help);
}

CommandOption CommandSyntax::AddOption(const std::string& names,
                                       const std::function<void(const std::string&)>& take,
                                       const std::string& help) const {
  return CommandOption(syntax_->add_option_function<std::string>(names, take, help));
}

CommandSyntax CommandSyntax::GetCommand(const std::string& name) const {
  return CommandSyntax(syntax_->get_subcommand(name));
}

CommandOption CommandSyntax::GetOption(const std::string& name) const {
  return CommandOption(syntax_->get_option(name));
}

std::string CommandSyntax::GetPath() const {
  std::string path = syntax_->get_name();
  for (const CLI::App* above = syntax_->get_parent(); above->get_parent() != nullptr;
       above = above->get_parent()) {
    path = above->get_name() + ' ' + path;
  }
  return path;
}

void CommandSyntax::SetFooter(const std::string& text) const {
  syntax_->footer(text);
}

void CommandSyntax::RequireCommand() const {
  syntax_->require_subcommand(1);
}

void CommandSyntax::RequireAnOption() const {
  constexpr std::size_t kNoLimit = 0;
  syntax_->require_option(1, kNoLimit);
}

void CommandSyntax::OnParsed(const std::function<void()>& look) const {
  syntax_->parse_complete_callback(look);
}

void CommandSyntax::OnChosen(const std::function<void()>& act) const {
  syntax_->final_callback(act);
}

// ---- CommandLine ----

CommandLine::CommandLine(const std::string& description, const std::string& name,
                         const std::string& version)
    : app_(std::make_unique<CLI::App>(description, name)) {
  app_->set_version_flag("--version", version, "Print the version and exit");
  // Demanding one here would hide the name of an unknown one behind "a subcommand is required".
  app_->require_subcommand(0, 1);
}

CommandLine::~CommandLine() = default;

CommandSyntax CommandLine::Syntax() const {
  return CommandSyntax(app_.get());
}

CommandLine::Result CommandLine::Parse(int argc, const char* const* argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success)) {
      throw WrongUsage(error.what());
    }
    app_->exit(error);  // --help, --version
    return Result::kAnswered;
  }
  return app_->get_subcommands().empty() ? Result::kNoCommand : Result::kCommand;
}

}  // namespace tolm::tool
