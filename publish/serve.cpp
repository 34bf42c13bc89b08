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
#include <thread>

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
constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;

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

void Answer(int root, const httplib::Request& request, httplib::Response& response) {
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
  response.status = kOk;
  if (status.st_size == 0) {
    return;
  }
  response.set_content_provider(
      static_cast<std::size_t>(status.st_size), "application/octet-stream",
      [file](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        std::array<char, kPieceBytes> piece{};
        const std::int64_t count =
            base::ReadAt(file->Get(), piece.data(), std::min(length, piece.size()), offset);
        return count > 0 && sink.write(piece.data(), static_cast<std::size_t>(count));
      });
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
