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

void AddServe(CLI::App& app) {
  const auto request = std::make_shared<publish::ServeRequest>();
  CLI::App* command = app.add_subcommand(
      "serve", "Serve the public directory over HTTP, for trying; prints the port");
  AddRepositoryOption(*command, request->repository);
  command->add_option("--port", request->port, "By default one that the system chooses")
      ->check(CLI::Range(0, 65535));
  command->add_option("--address", request->address, "Address to listen on")->capture_default_str();
  command->callback([request] {
    publish::ServeRepository(*request, [](int port) { std::cout << port << std::endl; });
  });
}

void Install(const publish::InstallConfigRequest& request) {
  const std::time_t now = std::time(nullptr);
  const publish::InstallConfigReport report = InstallConfig(request, now);
  if (report.databases == 0) {
    PrintNote("no database was released yet, so devices are told of none");
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

void AddInstallConfig(CLI::App& app) {
  const auto request = std::make_shared<publish::InstallConfigRequest>();
  CLI::App* command = app.add_subcommand(
      "install-config", "Write the default configuration and the keyring of a device");
  AddRepositoryOption(*command, request->repository);
  command->add_option("ROOT", request->root, "Root of the device or its image")->required();
  command
      ->add_option("--install-dest", request->install_dest,
                   "Where devices install the databases: %VOLUME% or %ROOTFS%")
      ->check(CLI::IsMember({"%VOLUME%", "%ROOTFS%"}));
  command->add_option("--crl", request->revocations_path,
                      "Revocation lists (PEM) to install beside the keyring");
  command->callback([request] { Install(*request); });
}

}  // namespace

void AddServingCommands(CLI::App& app) {
  AddServe(app);
  AddInstallConfig(app);
}

}  // namespace tolm::tool
