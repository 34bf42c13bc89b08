#include "publish/serve.h"

#include <fcntl.h>
#include <httplib.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/member_path.h"
#include "publish/error.h"
#include "publish/repository.h"

namespace tolm::publish {
namespace {

using base::Descriptor;

constexpr std::size_t kPieceBytes = 64 * 1024;
constexpr int kOk = 200;
constexpr int kPart = 206;
constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;
constexpr int kNoSuchPart = 416;

// Blocked in every thread from here on, so that only WaitForEnd() gets them.
sigset_t BlockEndSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// A file below the public directory, reached by names that are not followed; closed when there is
// none.
Descriptor OpenPublic(int root, const std::string& request_path) {
  package::MemberPath names;
  try {
    names = package::SplitMemberPath(request_path.substr(1));
  } catch (const package::Error&) {
    return Descriptor();
  }
  Descriptor current(::fcntl(root, F_DUPFD_CLOEXEC, 0));
  for (std::size_t i = 0; i < names.size() && current.IsOpen(); ++i) {
    const int kind = i + 1 < names.size() ? O_DIRECTORY : O_NONBLOCK | O_NOCTTY;
    current = Descriptor(
        ::openat(current.Get(), names[i].c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | kind));
  }
  return current;
}

// Some bytes of a file: from the first on, and before the last.
struct Part {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// The one range that is asked for (RFC 9110, section 14); nothing where the whole file is to be
// sent: also for several, and under the condition that the file is the same, since nothing is sent
// by which that could be told.
std::optional<httplib::Range> TakeRange(const httplib::Request& request) {
  // The library would cut what is sent by itself, also behind its end, and call it the whole.
  const httplib::Ranges asked = std::exchange(const_cast<httplib::Request&>(request).ranges, {});
  const bool counts =
      asked.size() == 1 && request.method == "GET" && !request.has_header("If-Range");
  return counts ? std::make_optional(asked.front()) : std::nullopt;
}

// Of a range, -1 stands for a number that is not there: "bytes=-5" are the last five.
Part PartOf(const httplib::Range& range, std::uint64_t size) {
  if (range.first < 0) {
    return {size - std::min(size, static_cast<std::uint64_t>(range.second)), size};
  }
  const auto last = static_cast<std::uint64_t>(range.second);
  return {static_cast<std::uint64_t>(range.first), last < size ? last + 1 : size};
}

void Send(const std::shared_ptr<const Descriptor>& file, const Part& part,
          httplib::Response& response) {
  if (part.begin == part.end) {
    return;
  }
  response.set_content_provider(
      static_cast<std::size_t>(part.end - part.begin), "application/octet-stream",
      [file, part](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        std::array<char, kPieceBytes> piece{};
        const std::int64_t count = base::ReadAt(
            file->Get(), piece.data(), std::min(length, piece.size()), part.begin + offset);
        return count > 0 && sink.write(piece.data(), static_cast<std::size_t>(count));
      });
}

void Answer(int root, const httplib::Request& request, httplib::Response& response) {
  const std::optional<httplib::Range> range = TakeRange(request);
  if (request.method != "GET" && request.method != "HEAD") {
    response.status = kMethodNotAllowed;
    return;
  }
  const auto file = std::make_shared<const Descriptor>(OpenPublic(root, request.path));
  struct stat status {};
  if (!file->IsOpen() || ::fstat(file->Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    response.status = kNotFound;
    return;
  }
  const auto size = static_cast<std::uint64_t>(status.st_size);
  response.set_header("Accept-Ranges", "bytes");
  if (!range) {
    response.status = kOk;
    Send(file, {0, size}, response);
    return;
  }
  const Part part = PartOf(*range, size);
  const bool is_there = part.begin < part.end;
  response.status = is_there ? kPart : kNoSuchPart;
  response.set_header("Content-Range", "bytes " +
                                           (is_there ? std::to_string(part.begin) + '-' +
                                                           std::to_string(part.end - 1)
                                                     : std::string("*")) +
                                           '/' + std::to_string(size));
  if (is_there) {
    Send(file, part, response);
  }
}

}  // namespace

void ServeRepository(const ServeRequest& request, const std::function<void(int port)>& listening) {
  const RepositoryPaths paths(request.repository);
  RequireRepository(paths);
  const Descriptor root(::open(paths.Public().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.IsOpen()) {
    throw package::SystemError(package::Code::kRead, paths.Public(), errno);
  }
  const sigset_t signals = BlockEndSignals();
  httplib::Server server;
  // The library's own routes are regular expressions, which have no bounded depth.
  server.set_pre_routing_handler(
      [&root](const httplib::Request& wanted, httplib::Response& response) {
        Answer(root.Get(), wanted, response);
        return httplib::Server::HandlerResponse::Handled;
      });
  // Without the library's default, which lets two servers share a port.
  server.set_socket_options([](socket_t socket) {
    const int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  const int port = request.port == 0 ? server.bind_to_any_port(request.address)
                   : server.bind_to_port(request.address, request.port) ? request.port
                                                                        : -1;
  if (port <= 0) {
    throw Error(request.address + ':' + std::to_string(request.port) + ": cannot listen there");
  }
  std::thread answering([&server] { server.listen_after_bind(); });
  while (!server.is_running()) {  // Before, it could not be stopped.
    std::this_thread::yield();
  }
  listening(port);
  int received = 0;
  ::sigwait(&signals, &received);
  server.stop();
  answering.join();
}

}  // namespace tolm::publish
