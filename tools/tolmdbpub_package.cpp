// The commands for keys and single packages.

#include <climits>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/utf8.h"
#include "publish/catalog.h"
#include "publish/inspect.h"
#include "publish/key_generator.h"
#include "publish/pack.h"
#include "publish/passphrase.h"
#include "publish/unpack.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

struct KeygenRequest {
  publish::SigningKeyRequest signing;
  bool is_info = false;
  bool no_passphrase = false;
  std::string passphrase_file;
  std::vector<std::string> databases;
};

// Before anything is made.
std::string NewPassphrase(const KeygenRequest& request) {
  if (request.no_passphrase) {
    return "";
  }
  if (!request.passphrase_file.empty()) {
    return publish::ReadPassphrase(request.passphrase_file);
  }
  if (!publish::HasTerminal()) {
    throw WrongUsage(
        "root.key is encrypted, and there is no terminal to ask for a pass phrase on: "
        "--passphrase-file FILE gives it, --no-passphrase leaves the key as it is");
  }
  return publish::AskNewPassphrase("root.key");
}

void Keygen(KeygenRequest& request) {
  const std::int64_t now = std::time(nullptr);
  publish::SigningKeyRequest& signing = request.signing;
  if (!request.databases.empty()) {
    signing.scope.emplace(request.databases.begin(), request.databases.end());
  }
  if (signing.root_key.empty()) {
    publish::GenerateKeys(signing.directory, now, {NewPassphrase(request), signing.scope});
    return;
  }
  if (!request.passphrase_file.empty()) {
    signing.passphrase = publish::ReadPassphrase(request.passphrase_file);
  }
  if (request.is_info) {
    GenerateInfoKey(signing, now);
  } else {
    GenerateSigningKey(signing, now);
  }
}

void AddKeygen(CommandSyntax app) {
  const auto request = std::make_shared<KeygenRequest>();
  publish::SigningKeyRequest& signing = request->signing;
  const CommandSyntax command = app.AddCommand(
      "keygen",
      "Make a root authority, and keys below it for packages and for descriptions: root, signing "
      "and info, .key and .pem each");
  command.AddOption("DIR", signing.directory, "Directory for the files; created when missing")
      .Required();
  const CommandOption key =
      command.AddOption("--root-key", signing.root_key,
                        "Make a signing key only, below the authority with this private key");
  const CommandOption root = command.AddOption("--root", signing.root_path, "Its certificate");
  const CommandOption days =
      command.AddOption("--days", signing.days, "How long the signing key is valid then")
          .ShowDefault()
          .InRange(1, publish::kMaxMinCertificateDays)
          .Needs(key);
  key.Needs(root);
  root.Needs(key);
  const CommandOption info =
      command
          .AddFlag("--info", request->is_info,
                   "Make a key for descriptions instead, which is valid for two years")
          .Needs(key)
          .Excludes(days);
  command
      .AddOption("--for", request->databases,
                 "The signing key is for this database only; may be given several times")
      .Check(publish::DatabaseNameProblem)
      .Excludes(info);
  const CommandOption file = AddPassphraseOption(command, request->passphrase_file);
  command
      .AddFlag("--no-passphrase", request->no_passphrase,
               "Do not encrypt root.key; otherwise a pass phrase is asked for on the terminal")
      .Excludes(file)
      .Excludes(key);
  command.OnChosen([request] { Keygen(*request); });
}

void AddPack(CommandSyntax app) {
  using package::Kind;
  const auto request = std::make_shared<publish::PackRequest>();
  const CommandSyntax command = app.AddCommand("pack", "Pack and sign a directory");
  command.AddOption("DIR", request->source_directory, "What to pack").Required();
  command.AddOption("PACKAGE", request->package_path, "Package file to write").Required();
  command.AddOption("--name", request->seal.name, "Name of the database")
      .Required()
      .Check(package::NameProblem);
  command
      .AddOption(
          "--kind",
          [request](const std::string& kind) {
            request->seal.kind = kind == KindText(Kind::kFull) ? Kind::kFull : Kind::kDelta;
          },
          "full or delta")
      .Required()
      .OneOf({KindText(Kind::kFull), KindText(Kind::kDelta)});
  command.AddOption("--version", request->seal.version, "Data version")
      .Required()
      .InRange(0, INT_MAX);
  command.AddOption("--key", request->key, "Private key: a file, or a URI that OpenSSL opens")
      .Required();
  command.AddOption("--cert", request->certificate_path, "Its certificate, and those above it")
      .Required();
  AddPackingOptions(
      command,
      {[request](package::CompressionChoice choice) { request->packing.compression = choice; },
       [request](int mebibytes) { request->packing.window_mebibytes = mebibytes; }});
  command.OnChosen([request] {
    ProgressLine line;
    Pack(*request, std::time(nullptr), [&line](std::uint64_t bytes) {
      line.Show({"packed", bytes, 0});
    });
  });
}

void AddInspect(CommandSyntax app) {
  const auto request = std::make_shared<publish::InspectRequest>();
  const CommandSyntax command =
      app.AddCommand("inspect", "Show what a package holds and who signed it");
  command.AddOption("PACKAGE", request->package_path, "Package file").Required();
  const CommandOption keyring = command.AddOption(
      "--keyring", request->keyring_path, "Verify against these trusted certificates (PEM)");
  command.AddOption("--crl", request->revocations_path, "Revocation lists (PEM)").Needs(keyring);
  command.OnChosen([request] { Inspect(*request, std::time(nullptr), std::cout); });
}

void Unpack(const publish::UnpackRequest& request) {
  const publish::UnpackReport report = UnpackPackage(request, std::time(nullptr));
  std::cout << base::EscapeControls(report.seal.name) << ' ' << report.seal.version << " ("
            << KindText(report.seal.kind) << "): " << report.files
            << (report.files == 1 ? " file is" : " files are") << " unpacked into "
            << base::EscapeControls(request.directory) << '\n';
}

void AddUnpack(CommandSyntax app) {
  const auto request = std::make_shared<publish::UnpackRequest>();
  const CommandSyntax command = app.AddCommand(
      "unpack", "Verify a package as a device does and unpack it, completely or not at all");
  command.AddOption("PACKAGE", request->package_path, "Package file").Required();
  command.AddOption("DIR", request->directory, "A new directory, or an empty one").Required();
  command
      .AddOption("--root", request->keyring_path,
                 "Trusted certificates (PEM) that it must be signed below")
      .Required();
  command.AddOption("--crl", request->revocations_path, "Revocation lists (PEM)");
  command.OnChosen([request] { Unpack(*request); });
}

}  // namespace

CommandOption AddPassphraseOption(CommandSyntax command, std::string& file) {
  return command.AddOption("--passphrase-file", file,
                           "File with the pass phrase of the root's key; \"-\": standard input");
}

void AddPackingOptions(CommandSyntax options, const PackingTakers& takers) {
  using package::CompressionChoice;
  options
      .AddOption(
          "--compression",
          [takers](const std::string& text) {
            takers.compression(*package::ParseCompressionChoice(text));
          },
          "xz, zstd, or auto: both are tried and the smaller package is taken")
      .OneOf({CompressionChoiceText(CompressionChoice::kAuto),
              CompressionChoiceText(CompressionChoice::kXz),
              CompressionChoiceText(CompressionChoice::kZstd)});
  std::vector<std::string> sizes;
  for (int size = package::kLeastWindowMebibytes; size <= package::kMostWindowMebibytes; ++size) {
    if (package::IsWindowSize(size)) {
      sizes.push_back(std::to_string(size));
    }
  }
  options
      .AddOption(
          "--compression-window",
          [takers](const std::string& text) { takers.window(std::stoi(text)); },
          "MiB that a device needs at most to unpack, besides what it needs anyway; 32 at first")
      .OneOf(sizes);
}

void AddPackageCommands(CommandSyntax app) {
  AddKeygen(app);
  AddPack(app);
  AddInspect(app);
  AddUnpack(app);
}

}  // namespace tolm::tool
