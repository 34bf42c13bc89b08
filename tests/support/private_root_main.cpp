// Runs a command in a private root: see private_root.h for what it finds there.
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "tests/support/private_root.h"

namespace {

using tolm::testing::PrivateRootOptions;

// The command's own exit status is handed through; these are ours, as other programs that run a
// command use them.
constexpr int kSetUpFailed = 125;
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;

const char kUsage[] =
    "usage: tolm-private-root [OPTION]... [--] COMMAND [ARGUMENT]...\n"
    "Runs COMMAND with a root directory of its own; nothing that it writes stays on the machine.\n"
    "\n"
    "  --stage DIR        lay DIR/usr over /usr\n"
    "  --bind PATH        show PATH inside, read-only\n"
    "  --bind-rw PATH     show PATH inside; what is written there is written on the machine\n"
    "  --volumes N        mount /volume1 to /volumeN (default 2)\n"
    "  --tmpfs-size SIZE  limit of each temporary file system, such as 64m (default: half of the "
    "memory)\n"
    "  --in-place         make no private root: copy the stage to / and run COMMAND on the machine "
    "itself,\n"
    "                     for machines and containers that are thrown away afterwards\n"
    "  --help             show this text\n"
    "\n"
    "Exit status: that of COMMAND; 125 the private root could not be made or the call is wrong,\n"
    "126 COMMAND cannot be executed, 127 COMMAND was not found.\n";

struct Arguments {
  PrivateRootOptions options;
  bool in_place = false;
  bool help = false;
  char** command = nullptr;
};

unsigned ParseVolumes(const std::string& text) {
  const bool is_number = !text.empty() && text.size() <= 2 &&
                         text.find_first_not_of("0123456789") == std::string::npos;
  if (!is_number) {
    throw std::invalid_argument("--volumes takes a number from 0 to 99, not \"" + text + "\"");
  }
  return static_cast<unsigned>(std::stoul(text));
}

std::string ParseSize(const std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789kKmMgG%") != std::string::npos) {
    throw std::invalid_argument("--tmpfs-size takes a size such as 64m, not \"" + text + "\"");
  }
  return text;
}

Arguments Parse(int argc, char** argv) {
  enum { kStage = 1, kBind, kBindRw, kVolumes, kTmpfsSize, kInPlace, kHelp };
  static const option kOptions[] = {
      {"stage", required_argument, nullptr, kStage},
      {"bind", required_argument, nullptr, kBind},
      {"bind-rw", required_argument, nullptr, kBindRw},
      {"volumes", required_argument, nullptr, kVolumes},
      {"tmpfs-size", required_argument, nullptr, kTmpfsSize},
      {"in-place", no_argument, nullptr, kInPlace},
      {"help", no_argument, nullptr, kHelp},
      {nullptr, 0, nullptr, 0},
  };
  Arguments arguments;
  int choice = 0;
  // "+": the command's own options are none of ours.
  while ((choice = getopt_long(argc, argv, "+", kOptions, nullptr)) != -1) {
    switch (choice) {
      case kStage:
        arguments.options.stage = optarg;
        break;
      case kBind:
        arguments.options.binds.push_back({optarg, false});
        break;
      case kBindRw:
        arguments.options.binds.push_back({optarg, true});
        break;
      case kVolumes:
        arguments.options.volumes = ParseVolumes(optarg);
        break;
      case kTmpfsSize:
        arguments.options.tmpfs_size = ParseSize(optarg);
        break;
      case kInPlace:
        arguments.in_place = true;
        break;
      case kHelp:
        arguments.help = true;
        return arguments;
      default:
        throw std::invalid_argument("wrong options, see --help");
    }
  }
  arguments.command = argv + optind;
  if (*arguments.command == nullptr) {
    throw std::invalid_argument("a command is missing, see --help");
  }
  return arguments;
}

void PrepareInPlace(const PrivateRootOptions& options) {
  if (geteuid() != 0) {
    throw std::runtime_error("--in-place changes this machine and needs root");
  }
  std::fprintf(
      stderr,
      "tolm-private-root: WARNING: no private root; running on this machine itself, which will be "
      "changed\n");
  if (!options.stage.empty()) {
    std::fprintf(stderr, "tolm-private-root: WARNING: copying %s to /\n", options.stage.c_str());
    tolm::testing::InstallStageInPlace(options.stage);
  }
}

int Execute(char** command) {
  execvp(command[0], command);
  const int error = errno;
  std::fprintf(stderr, "tolm-private-root: cannot execute %s: %s\n", command[0],
               std::strerror(error));
  return error == ENOENT ? kNotFound : kNotExecutable;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Arguments arguments = Parse(argc, argv);
    if (arguments.help) {
      std::fputs(kUsage, stdout);
      return EXIT_SUCCESS;
    }
    if (arguments.in_place) {
      PrepareInPlace(arguments.options);
    } else {
      tolm::testing::EnterPrivateRoot(arguments.options);
    }
    return Execute(arguments.command);
  } catch (const tolm::testing::PrivateRootUnavailable& error) {
    std::fprintf(
        stderr,
        "tolm-private-root: %s (on a machine or container to be thrown away, --in-place runs "
        "the command without a private root)\n",
        error.what());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tolm-private-root: %s\n", error.what());
  }
  return kSetUpFailed;
}
