// The commands that sign what is offered.

#include <ctime>
#include <iostream>
#include <memory>
#include <string>

#include "base/utf8.h"
#include "publish/list.h"
#include "publish/passphrase.h"
#include "publish/refresh.h"
#include "publish/upgrade.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

using base::EscapeControls;

std::string SignedText(std::size_t databases, std::int64_t expires) {
  return "signed " + std::to_string(databases) + (databases == 1 ? " database" : " databases") +
         ", valid until " + publish::TimeText(expires) + " UTC\n";
}

void AddRefresh(CommandSyntax app) {
  const auto repository = std::make_shared<std::string>();
  const auto is_quiet = std::make_shared<bool>(false);
  const CommandSyntax command =
      app.AddCommand("refresh", "Sign the description anew, so that devices go on believing it");
  AddRepositoryOption(command, *repository);
  command.AddFlag("-q,--quiet", *is_quiet, "Print nothing but what is wrong");
  command.OnChosen([=] {
    const publish::RefreshReport report =
        publish::RefreshDescription(*repository, std::time(nullptr));
    if (!*is_quiet) {
      std::cout << SignedText(report.databases, report.expires);
    }
  });
}

struct UpgradeCommand {
  publish::UpgradeRequest request;
  std::string passphrase_file;
};

void Upgrade(UpgradeCommand& upgrade) {
  if (!upgrade.passphrase_file.empty()) {
    upgrade.request.passphrase = publish::ReadPassphrase(upgrade.passphrase_file);
  }
  const publish::UpgradeReport report =
      UpgradeRepository(upgrade.request, std::time(nullptr), PrintNote);
  if (report.is_signed_already) {
    std::cout << "nothing to do: descriptions are signed already, with "
              << EscapeControls(report.info_key) << '\n';
    return;
  }
  std::cout << SignedText(report.databases, report.expires) << "  with "
            << EscapeControls(report.info_key) << "; \"tolmdbpub refresh "
            << EscapeControls(upgrade.request.repository) << "\" every day keeps it so\n";
}

void AddUpgrade(CommandSyntax app) {
  const auto upgrade = std::make_shared<UpgradeCommand>();
  publish::UpgradeRequest& request = upgrade->request;
  const CommandSyntax command =
      app.AddCommand("upgrade", "Begin to sign the descriptions of an existing repository");
  AddRepositoryOption(command, request.repository);
  const CommandOption root_key =
      command.AddOption("--root-key", request.root_key,
                        "Private key of the root: info.key and info.pem are made beside the key");
  command
      .AddOption("--root", request.root_path, "Its certificate; by default the repository's root")
      .Needs(root_key);
  AddPassphraseOption(command, upgrade->passphrase_file).Needs(root_key);
  const CommandOption info_key =
      command.AddOption("--info-key", request.keys.info_key, "Key that signs descriptions")
          .Excludes(root_key);
  const CommandOption info_certificate =
      command.AddOption("--info-cert", request.keys.info_certificate_path, "Its certificate");
  info_key.Needs(info_certificate);
  info_certificate.Needs(info_key);
  command.AddOption("--refresh-group", request.refresh_group,
                    "Group that may \"refresh\", and nothing else");
  command.OnChosen([=] {
    if (!root_key.IsGiven() && !info_key.IsGiven() && upgrade->request.refresh_group.empty()) {
      throw WrongUsage("upgrade needs --root-key, or --info-key and --info-cert");
    }
    Upgrade(*upgrade);
  });
}

}  // namespace

void AddDescriptionCommands(CommandSyntax app) {
  AddRefresh(app);
  AddUpgrade(app);
}

}  // namespace tolm::tool
