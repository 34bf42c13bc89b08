// The commands that bring a repository to devices.

#include <ctime>
#include <iostream>
#include <memory>

#include "base/utf8.h"
#include "publish/install_config.h"
#include "publish/serve.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

void AddServe(CommandSyntax app) {
  const auto request = std::make_shared<publish::ServeRequest>();
  const CommandSyntax command =
      app.AddCommand("serve", "Serve the public directory over HTTP, for trying; prints the port");
  AddRepositoryOption(command, request->repository);
  command.AddOption("--port", request->port, "By default one that the system chooses")
      .InRange(0, 65535);
  command.AddOption("--address", request->address, "Address to listen on").ShowDefault();
  command.OnChosen([request] {
    publish::ServeRepository(*request, [](int port) { std::cout << port << std::endl; });
  });
}

void Install(const publish::InstallConfigRequest& request) {
  const std::int64_t now = std::time(nullptr);
  const publish::InstallConfigReport report = InstallConfig(request, now);
  if (report.databases == 0) {
    PrintNote("no database was released yet, so devices are told of none");
  }
  if (report.requires_signed) {
    std::cout << "devices take no description that is not signed\n";
  }
  if (!report.revocations) {
    return;
  }
  for (const publish::RevocationList& list : report.revocations->lists) {
    std::cout << base::EscapeControls(RevocationText(list)) << '\n';
  }
  for (const std::string& warning : RevocationWarnings(*report.revocations, now)) {
    PrintNote(warning);
  }
  if (report.refused > 0) {
    PrintNote(std::to_string(report.refused) +
              (report.refused == 1 ? " package is" : " packages are") +
              " offered that devices with these revocations refuse; \"tolmdbpub resign " +
              request.repository + " --key KEY --cert FILE\" signs anew");
  }
}

void AddInstallConfig(CommandSyntax app) {
  const auto request = std::make_shared<publish::InstallConfigRequest>();
  const CommandSyntax command = app.AddCommand(
      "install-config", "Write the default configuration and the keyring of a device");
  AddRepositoryOption(command, request->repository);
  command.AddOption("ROOT", request->root, "Root of the device or its image").Required();
  command
      .AddOption("--install-dest", request->install_dest,
                 "Where devices install the databases: %VOLUME% or %ROOTFS%")
      .OneOf({"%VOLUME%", "%ROOTFS%"});
  command.AddOption("--crl", request->revocations_path,
                    "Revocation lists (PEM) to install beside the keyring");
  command.OnChosen([request] { Install(*request); });
}

}  // namespace

void AddServingCommands(CommandSyntax app) {
  AddServe(app);
  AddInstallConfig(app);
}

}  // namespace tolm::tool
