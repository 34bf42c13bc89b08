// The publisher's tool: parses, calls one function of the publish library, maps its result to an
// exit code.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdint>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

#include "package/utf8.h"
#include "publish/inspect.h"
#include "publish/key_generator.h"
#include "publish/pack.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;
constexpr char kExitCodes[] = "Exit codes: 0 success, 1 failure, 2 wrong usage.";

void PrintError(const std::string& text) {
  std::cerr << "tolmdbpub: " << tolm::package::EscapeControls(text) << '\n';
}

// Shows on a terminal, and only there, how far packing has come; clears its line at the end.
class ProgressLine {
 public:
  ProgressLine() : shown_(::isatty(STDERR_FILENO) == 1) {}
  ~ProgressLine() {
    if (last_mebibytes_ > 0) {
      std::cerr << "\r\033[K";
    }
  }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void Update(std::uint64_t packed_bytes) {
    const std::uint64_t mebibytes = packed_bytes >> 20;
    if (shown_ && mebibytes > last_mebibytes_) {
      last_mebibytes_ = mebibytes;
      std::cerr << "\rpacked " << mebibytes << " MiB" << std::flush;
    }
  }

 private:
  bool shown_;
  std::uint64_t last_mebibytes_ = 0;
};

void AddKeygen(CLI::App& app, std::string& directory) {
  CLI::App* command = app.add_subcommand(
      "keygen",
      "Make a root authority and a signing key: root.key, root.pem, signing.key, signing.pem");
  command->add_option("DIR", directory, "Directory for the files; created when missing")
      ->required();
  command->callback([&] { tolm::publish::GenerateKeys(directory, std::time(nullptr)); });
}

void AddPack(CLI::App& app, tolm::publish::PackRequest& request) {
  using tolm::package::Kind;
  CLI::App* command = app.add_subcommand("pack", "Pack and sign a directory");
  command->add_option("DIR", request.source_directory, "What to pack")->required();
  command->add_option("PACKAGE", request.package_path, "Package file to write")->required();
  command->add_option("--name", request.seal.name, "Name of the database")
      ->required()
      ->check(tolm::package::NameProblem);
  command
      ->add_option_function<std::string>(
          "--kind",
          [&](const std::string& kind) {
            request.seal.kind = kind == KindText(Kind::kFull) ? Kind::kFull : Kind::kDelta;
          },
          "full or delta")
      ->required()
      ->check(CLI::IsMember({KindText(Kind::kFull), KindText(Kind::kDelta)}));
  command->add_option("--version", request.seal.version, "Data version")
      ->required()
      ->check(CLI::Range(0, INT_MAX));
  command->add_option("--key", request.key, "Private key: a file, or a URI that OpenSSL opens")
      ->required();
  command->add_option("--cert", request.certificate_path, "Its certificate, and those above it")
      ->required();
  command->callback([&] {
    ProgressLine line;
    Pack(request, std::time(nullptr), [&](std::uint64_t bytes) { line.Update(bytes); });
  });
}

void AddInspect(CLI::App& app, tolm::publish::InspectRequest& request) {
  CLI::App* command = app.add_subcommand("inspect", "Show what a package holds and who signed it");
  command->add_option("PACKAGE", request.package_path, "Package file")->required();
  CLI::Option* keyring = command->add_option("--keyring", request.keyring_path,
                                             "Verify against these trusted certificates (PEM)");
  command->add_option("--crl", request.revocations_path, "Revocation lists (PEM)")->needs(keyring);
  command->callback([&] { Inspect(request, std::time(nullptr), std::cout); });
}

int Run(int argc, char** argv) {
  CLI::App app("Makes and inspects signed database packages.");
  app.footer(kExitCodes);
  // Demanding one here would hide the name of an unknown one behind "a subcommand is required".
  app.require_subcommand(0, 1);
  std::string key_directory;
  tolm::publish::PackRequest pack;
  tolm::publish::InspectRequest inspect;
  AddKeygen(app, key_directory);
  AddPack(app, pack);
  AddInspect(app, inspect);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      return app.exit(error);  // --help
    }
    PrintError(std::string(error.what()) + " (--help shows the usage)");
    return kWrongUsage;
  }
  if (app.get_subcommands().empty()) {
    PrintError("a subcommand is required (--help shows the usage)");
    return kWrongUsage;
  }
  if (!std::cout.flush()) {
    PrintError("cannot write to standard output");
    return kFailure;
  }
  return kSuccess;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    PrintError(error.what());
    return kFailure;
  }
}
