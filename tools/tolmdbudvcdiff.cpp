// Applies, describes and checks VCDIFF deltas (RFC 3284).
// It reads its own command line: what a device runs needs no more than the decoder.

#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <new>
#include <string>

#include "vcdiff/decoder.h"
#include "vcdiff/error.h"
#include "vcdiff/info.h"
#include "vcdiff/input.h"
#include "vcdiff/limits.h"
#include "vcdiff/output.h"

namespace {

using tolm::vcdiff::DecodeResult;
using tolm::vcdiff::Error;
using tolm::vcdiff::ErrorKind;
using tolm::vcdiff::FileAccess;
using tolm::vcdiff::FileInput;
using tolm::vcdiff::Limits;
using tolm::vcdiff::OutputFile;

enum ExitStatus { kSuccess = 0, kBadInput = 1, kUsage = 2, kIoFailure = 3 };

constexpr char kUsageText[] =
    "usage: tolmdbudvcdiff decode [OPTION...] SOURCE OUTPUT DELTA\n"
    "       tolmdbudvcdiff verify [OPTION...] SOURCE DELTA\n"
    "       tolmdbudvcdiff info [--json] [OPTION...] DELTA\n";

constexpr char kHelpText[] =
    "\n"
    "decode  rebuilds OUTPUT from SOURCE and DELTA (VCDIFF, RFC 3284). OUTPUT appears when it is\n"
    "        complete and every check has passed, with the permission bits of SOURCE.\n"
    "verify  does the same without writing OUTPUT.\n"
    "info    describes DELTA: header, windows, numbers of instructions.\n"
    "\n"
    "  --json                       info: one JSON object\n"
    "  --max-window BYTES           largest window (67108864)\n"
    "  --max-empty-windows NUMBER   windows in a row that add nothing to OUTPUT (64)\n"
    "  --max-code-table BYTES       largest application-defined code table (16384)\n"
    "  --max-lzma-memory BYTES      memory of each of three LZMA decompressors (83886080)\n"
    "  --max-target BYTES           largest OUTPUT (no limit)\n"
    "  --help                       shows this\n"
    "  --version                    shows the version\n"
    "\n"
    "Exit status: 0 success, 1 bad input, 2 wrong usage, 3 a file could not be read or written.\n";

struct CommandLine {
  std::string command;
  std::string source;
  std::string output;
  std::string delta;
  bool is_json = false;
  Limits limits;
};

// ---- Signals. Inputs are mapped, so a file that shrinks underneath arrives as one.

char g_temporary_path[PATH_MAX];  // empty: nothing to remove
char g_shrunk_message[2 * PATH_MAX + 100];

void RemoveTemporary() {
  if (g_temporary_path[0] != '\0') {
    unlink(g_temporary_path);
  }
}

extern "C" void HandleBusError(int /*signal*/) {
  RemoveTemporary();
  const ssize_t ignored = write(STDERR_FILENO, g_shrunk_message, std::strlen(g_shrunk_message));
  static_cast<void>(ignored);
  _exit(kIoFailure);
}

extern "C" void HandleEnd(int signal) {
  RemoveTemporary();
  std::signal(signal, SIG_DFL);
  raise(signal);
}

void Handle(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigaction(signal, &action, nullptr);
}

void HandleSignals(const CommandLine& line) {
  std::snprintf(g_shrunk_message, sizeof g_shrunk_message,
                "tolmdbudvcdiff: %s%s%s: became shorter while it was read, or cannot be read\n",
                line.source.c_str(), line.source.empty() ? "" : " or ", line.delta.c_str());
  Handle(SIGBUS, HandleBusError);
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
    Handle(signal, HandleEnd);
  }
  Handle(SIGXFSZ, SIG_IGN);  // Writing then fails like on a full disk.
}

// ---- Command line.

int WrongUsage(const std::string& problem) {
  std::fprintf(stderr, "tolmdbudvcdiff: %s (see tolmdbudvcdiff --help)\n", problem.c_str());
  return kUsage;
}

bool ParseNumber(const char* text, std::uint64_t& number) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 10);
  number = value;
  return *text >= '0' && *text <= '9' && *end == '\0' && errno == 0;
}

constexpr option kOptions[] = {
    {"json", no_argument, nullptr, 'j'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {"max-window", required_argument, nullptr, 'w'},
    {"max-empty-windows", required_argument, nullptr, 'e'},
    {"max-code-table", required_argument, nullptr, 'c'},
    {"max-lzma-memory", required_argument, nullptr, 'l'},
    {"max-target", required_argument, nullptr, 't'},
    {nullptr, 0, nullptr, 0},
};

std::uint64_t& LimitOf(int choice, Limits& limits) {
  switch (choice) {
    case 'w':
      return limits.max_window_bytes;
    case 'e':
      return limits.max_empty_windows;
    case 'c':
      return limits.max_code_table_bytes;
    case 'l':
      return limits.max_lzma_bytes;
    default:
      return limits.max_target_bytes;
  }
}

[[noreturn]] void Show(const char* text, const char* more) {
  std::printf("%s%s", text, more);
  std::exit(std::fflush(stdout) == 0 ? kSuccess : kIoFailure);
}

/// Reads the options; what is wrong with them, empty when nothing is.
std::string ParseOptions(int argc, char** argv, CommandLine& line) {
  opterr = 0;
  for (;;) {
    const int choice = getopt_long(argc, argv, "+h", kOptions, nullptr);
    switch (choice) {
      case -1:
        return "";
      case '?':
        return std::string("wrong option ") + argv[optind - 1];
      case 'h':
        Show(kUsageText, kHelpText);
      case 'V':
        Show("tolmdbudvcdiff ", TOLM_VERSION "\n");
      case 'j':
        line.is_json = true;
        break;
      default:
        if (!ParseNumber(optarg, LimitOf(choice, line.limits))) {
          return std::string("not a number: ") + optarg;
        }
    }
  }
}

/// The command line; what is wrong with it, empty when nothing is.
std::string Parse(int argc, char** argv, CommandLine& line) {
  std::string problem = ParseOptions(argc, argv, line);  // Options may stand before the command.
  if (!problem.empty() || optind == argc) {
    return problem.empty() ? "no command" : problem;
  }
  line.command = argv[optind++];
  problem = ParseOptions(argc, argv, line);
  if (!problem.empty()) {
    return problem;
  }
  std::string* const decode[] = {&line.source, &line.output, &line.delta};
  std::string* const verify[] = {&line.source, &line.delta};
  std::string* const info[] = {&line.delta};
  const auto take = [&](const auto& wanted) {
    if (argc - optind != static_cast<int>(std::size(wanted))) {
      return line.command + " takes " + std::to_string(std::size(wanted)) + " files";
    }
    for (std::string* file : wanted) {
      *file = argv[optind++];
    }
    return std::string(line.is_json && line.command != "info" ? "--json is for info only" : "");
  };
  if (line.command == "decode") {
    return take(decode);
  }
  if (line.command == "verify") {
    return take(verify);
  }
  return line.command == "info" ? take(info) : "no such command: " + line.command;
}

// ---- Commands.

void Decode(const CommandLine& line) {
  FileInput source(line.source, FileAccess::kMap);
  FileInput delta(line.delta, FileAccess::kMap);
  OutputFile output(line.output, source.Permissions(), FileAccess::kMap);
  std::snprintf(g_temporary_path, sizeof g_temporary_path, "%s", output.TemporaryPath().c_str());
  tolm::vcdiff::Decode(delta, source, output, line.limits);
  output.Commit();
  g_temporary_path[0] = '\0';
}

void Print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    tolm::vcdiff::ThrowIo("standard output", "write it", errno);
  }
}

void Verify(const CommandLine& line) {
  FileInput source(line.source, FileAccess::kMap);
  FileInput delta(line.delta, FileAccess::kMap);
  const DecodeResult result = tolm::vcdiff::Verify(delta, source, line.limits, FileAccess::kMap);
  Print("target " + std::to_string(result.target_bytes) + " bytes, windows " +
        std::to_string(result.windows) + ", with checksum " +
        std::to_string(result.windows_with_checksum) + "\n");
}

void Info(const CommandLine& line) {
  FileInput delta(line.delta, FileAccess::kMap);
  const tolm::vcdiff::Info info = tolm::vcdiff::Inspect(delta, line.limits);
  Print(line.is_json ? ToJson(info) : ToText(info));
}

void Run(const CommandLine& line) {
  if (line.command == "decode") {
    Decode(line);
  } else if (line.command == "verify") {
    Verify(line);
  } else {
    Info(line);
  }
}

int Failed(const char* what, int status) {
  std::fprintf(stderr, "tolmdbudvcdiff: %s\n", what);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  umask(022);  // Whatever the caller's.
  try {
    CommandLine line;
    const std::string problem = Parse(argc, argv, line);
    if (!problem.empty()) {
      return WrongUsage(problem);
    }
    HandleSignals(line);
    Run(line);
    return kSuccess;
  } catch (const Error& error) {
    return Failed(error.what(), error.Kind() == ErrorKind::kIo ? kIoFailure : kBadInput);
  } catch (const std::bad_alloc&) {
    return Failed("not enough memory", kIoFailure);
  } catch (const std::exception& error) {
    return Failed(error.what(), kIoFailure);
  }
}
