// The commands for keys and single packages.

#include <climits>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>

#include "base/utf8.h"
#include "publish/inspect.h"
#include "publish/key_generator.h"
#include "publish/pack.h"
#include "publish/unpack.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

void AddKeygen(CLI::App& app) {
  const auto request = std::make_shared<publish::SigningKeyRequest>();
  CLI::App* command = app.add_subcommand(
      "keygen",
      "Make a root authority and a signing key: root.key, root.pem, signing.key, signing.pem");
  command->add_option("DIR", request->directory, "Directory for the files; created when missing")
      ->required();
  CLI::Option* key =
      command->add_option("--root-key", request->root_key,
                          "Make a signing key only, below the authority with this private key");
  CLI::Option* root = command->add_option("--root", request->root_path, "Its certificate");
  command->add_option("--days", request->days, "How long the signing key is valid then")
      ->capture_default_str()
      ->check(CLI::Range(1, publish::kMaxMinCertificateDays))
      ->needs(key);
  key->needs(root);
  root->needs(key);
  command->callback([request] {
    const std::time_t now = std::time(nullptr);
    if (request->root_key.empty()) {
      publish::GenerateKeys(request->directory, now);
    } else {
      GenerateSigningKey(*request, now);
    }
  });
}

void AddPack(CLI::App& app) {
  using package::Kind;
  const auto request = std::make_shared<publish::PackRequest>();
  CLI::App* command = app.add_subcommand("pack", "Pack and sign a directory");
  command->add_option("DIR", request->source_directory, "What to pack")->required();
  command->add_option("PACKAGE", request->package_path, "Package file to write")->required();
  command->add_option("--name", request->seal.name, "Name of the database")
      ->required()
      ->check(package::NameProblem);
  command
      ->add_option_function<std::string>(
          "--kind",
          [request](const std::string& kind) {
            request->seal.kind = kind == KindText(Kind::kFull) ? Kind::kFull : Kind::kDelta;
          },
          "full or delta")
      ->required()
      ->check(CLI::IsMember({KindText(Kind::kFull), KindText(Kind::kDelta)}));
  command->add_option("--version", request->seal.version, "Data version")
      ->required()
      ->check(CLI::Range(0, INT_MAX));
  command->add_option("--key", request->key, "Private key: a file, or a URI that OpenSSL opens")
      ->required();
  command->add_option("--cert", request->certificate_path, "Its certificate, and those above it")
      ->required();
  command->callback([request] {
    ProgressLine line;
    Pack(*request, std::time(nullptr), [&line](std::uint64_t bytes) {
      line.Show({"packed", bytes, 0});
    });
  });
}

void AddInspect(CLI::App& app) {
  const auto request = std::make_shared<publish::InspectRequest>();
  CLI::App* command = app.add_subcommand("inspect", "Show what a package holds and who signed it");
  command->add_option("PACKAGE", request->package_path, "Package file")->required();
  CLI::Option* keyring = command->add_option("--keyring", request->keyring_path,
                                             "Verify against these trusted certificates (PEM)");
  command->add_option("--crl", request->revocations_path, "Revocation lists (PEM)")->needs(keyring);
  command->callback([request] { Inspect(*request, std::time(nullptr), std::cout); });
}

void Unpack(const publish::UnpackRequest& request) {
  const publish::UnpackReport report = UnpackPackage(request, std::time(nullptr));
  std::cout << base::EscapeControls(report.seal.name) << ' ' << report.seal.version << " ("
            << KindText(report.seal.kind) << "): " << report.files
            << (report.files == 1 ? " file is" : " files are") << " unpacked into "
            << base::EscapeControls(request.directory) << '\n';
}

void AddUnpack(CLI::App& app) {
  const auto request = std::make_shared<publish::UnpackRequest>();
  CLI::App* command = app.add_subcommand(
      "unpack", "Verify a package as a device does and unpack it, completely or not at all");
  command->add_option("PACKAGE", request->package_path, "Package file")->required();
  command->add_option("DIR", request->directory, "A new directory, or an empty one")->required();
  command
      ->add_option("--root", request->keyring_path,
                   "Trusted certificates (PEM) that it must be signed below")
      ->required();
  command->add_option("--crl", request->revocations_path, "Revocation lists (PEM)");
  command->callback([request] { Unpack(*request); });
}

}  // namespace

void AddPackageCommands(CLI::App& app) {
  AddKeygen(app);
  AddPack(app);
  AddInspect(app);
  AddUnpack(app);
}

}  // namespace tolm::tool
