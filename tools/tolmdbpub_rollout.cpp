// The commands on a version that does not reach all devices at once.

#include <ctime>
#include <iostream>
#include <memory>
#include <string>

#include "base/utf8.h"
#include "publish/rollout.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

using publish::OpenRollout;
using publish::RolloutAction;
using publish::RolloutRequest;

constexpr char kHeardOf[] =
    "  devices hear of it with the next description that they ask for; they may use the one that "
    "they have for an hour\n";

void Change(const RolloutRequest& request) {
  const std::int64_t now = std::time(nullptr);
  const OpenRollout rollout = ChangeRollout(request, now, PrintNote);
  std::cout << base::EscapeControls(request.name) << ' ';
  if (request.action == RolloutAction::kFinish) {
    std::cout << rollout.next << " is the stable version now, which all devices are offered\n";
  } else {
    std::cout << RolloutText(rollout, now) << '\n';
  }
  std::cout << kHeardOf;
  if (request.action == RolloutAction::kStop) {
    std::cout << "  \"tolmdbpub withdraw " << base::EscapeControls(request.repository) << ' '
              << base::EscapeControls(request.name) << ' ' << rollout.next
              << "\" brings those that have it back\n";
  }
}

void AddShow(CommandSyntax rollout) {
  const auto repository = std::make_shared<std::string>();
  const auto name = std::make_shared<std::string>();
  const auto as_json = std::make_shared<bool>(false);
  const CommandSyntax command = rollout.AddCommand("show", "Show which rollouts are open");
  AddRepositoryOption(command, *repository);
  command.AddOption("NAME", *name, "Name of one database").Check(publish::DatabaseNameProblem);
  command.AddFlag("--json", *as_json, "For programs");
  command.OnChosen(
      [=] { publish::ShowRollouts(*repository, *name, *as_json, std::time(nullptr), std::cout); });
}

// Which changes the rollout of a database.
CommandSyntax AddChange(CommandSyntax rollout, const std::string& word, const std::string& help,
                        RolloutAction action, const std::shared_ptr<RolloutRequest>& request) {
  const CommandSyntax command = rollout.AddCommand(word, help);
  AddRepositoryOption(command, request->repository);
  command.AddOption("NAME", request->name, "Name of the database")
      .Required()
      .Check(publish::DatabaseNameProblem);
  command.OnChosen([request, action] {
    request->action = action;
    Change(*request);
  });
  return command;
}

}  // namespace

void AddRolloutCommands(CommandSyntax app) {
  const CommandSyntax rollout =
      app.AddCommand("rollout", "Show or change how a staged version reaches the devices");
  rollout.RequireCommand();
  const auto request = std::make_shared<RolloutRequest>();
  AddShow(rollout);
  AddChange(rollout, "hold", "Let no further step begin", RolloutAction::kHold, request);
  AddChange(rollout, "resume", "Go on, later by the time for which it was held",
            RolloutAction::kResume, request)
      .AddFlag("--yes", request->stopped_too, "Also when it was stopped");
  AddChange(rollout, "stop", "Offer the staged version to nobody else", RolloutAction::kStop,
            request);
  AddChange(rollout, "finish", "Make the staged version the stable one", RolloutAction::kFinish,
            request)
      .AddFlag("--yes", request->stopped_too, "Also when it was stopped");
}

}  // namespace tolm::tool
