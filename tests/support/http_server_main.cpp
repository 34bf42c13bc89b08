// Serves a directory over HTTP on 127.0.0.1 until it is told to stop.
#include <getopt.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>

#include "tests/support/http_server.h"

namespace {

using tolm::testing::HttpRequest;
using tolm::testing::HttpServer;

const char kUsage[] =
    "usage: tolm-test-server DIR [--port-file FILE] [--log FILE]\n"
    "Serves the files below DIR on 127.0.0.1, at a port chosen by the system, until SIGTERM or "
    "SIGINT.\n"
    "\n"
    "  --port-file FILE  write the port to FILE, which appears complete; it goes to standard "
    "output too\n"
    "  --log FILE        append a line for each request: METHOD TARGET STATUS BYTES\n"
    "  --help            show this text\n"
    "\n"
    "For trying and testing only. Queries are ignored. Exit status: 0 stopped, 1 failed, 2 wrong "
    "call.\n";

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Arguments {
  std::filesystem::path directory;
  std::filesystem::path port_file;
  std::filesystem::path log;
  bool help = false;
};

Arguments Parse(int argc, char** argv) {
  enum { kPortFile = 1, kLog, kHelp };
  static const option kOptions[] = {
      {"port-file", required_argument, nullptr, kPortFile},
      {"log", required_argument, nullptr, kLog},
      {"help", no_argument, nullptr, kHelp},
      {nullptr, 0, nullptr, 0},
  };
  Arguments arguments;
  int choice = 0;
  while ((choice = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (choice) {
      case kPortFile:
        arguments.port_file = optarg;
        break;
      case kLog:
        arguments.log = optarg;
        break;
      case kHelp:
        arguments.help = true;
        return arguments;
      default:
        throw UsageError("wrong options, see --help");
    }
  }
  if (argc - optind != 1) {
    throw UsageError("one directory is needed, see --help");
  }
  arguments.directory = argv[optind];
  if (!std::filesystem::is_directory(arguments.directory)) {
    throw UsageError(arguments.directory.string() + " is no directory");
  }
  return arguments;
}

class RequestLog {
 public:
  explicit RequestLog(const std::filesystem::path& path) {
    if (path.empty()) {
      return;
    }
    file_.open(path, std::ios::app);
    if (!file_) {
      throw std::runtime_error("cannot write " + path.string());
    }
  }

  void Append(const HttpRequest& request, int status, std::uint64_t body_bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    file_ << request.method << ' ' << request.target << ' ' << status << ' ' << body_bytes
          << std::endl;
  }

 private:
  std::mutex mutex_;
  std::ofstream file_;
};

void AnnouncePort(std::uint16_t port, const std::filesystem::path& port_file) {
  std::printf("%d\n", static_cast<int>(port));
  std::fflush(stdout);
  if (port_file.empty()) {
    return;
  }
  const std::filesystem::path draft = port_file.string() + ".new";
  std::ofstream file(draft);
  file << port << std::endl;
  if (!file) {
    throw std::runtime_error("cannot write " + draft.string());
  }
  std::filesystem::rename(draft, port_file);
}

void ServeUntilStopped(const Arguments& arguments) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  // Before the server's threads are made: they inherit the mask.
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  RequestLog log(arguments.log);
  const HttpServer server(arguments.directory,
                          [&log](const HttpRequest& request, int status, std::uint64_t body_bytes) {
                            log.Append(request, status, body_bytes);
                          });
  AnnouncePort(server.Port(), arguments.port_file);
  int received = 0;
  sigwait(&signals, &received);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Arguments arguments = Parse(argc, argv);
    if (arguments.help) {
      std::fputs(kUsage, stdout);
    } else {
      ServeUntilStopped(arguments);
    }
    return EXIT_SUCCESS;
  } catch (const UsageError& error) {
    std::fprintf(stderr, "tolm-test-server: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tolm-test-server: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
