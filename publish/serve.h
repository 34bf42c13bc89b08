#ifndef TOLM_PUBLISH_SERVE_H_
#define TOLM_PUBLISH_SERVE_H_

#include <functional>
#include <string>

namespace tolm::publish {

struct ServeRequest {
  std::string repository;
  std::string address = "127.0.0.1";
  int port = 0;  ///< 0: one that the system chooses
};

/// Serves the public tree over HTTP for trying, until SIGINT or SIGTERM; then returns. Calls
/// @p listening with the port once requests are answered. Queries are ignored, and nothing says
/// when a file was last modified. A range of bytes is sent alone where it is asked for. Memory does
/// not grow with the files: they are sent piece by piece, from one descriptor each, so a
/// description that is replaced meanwhile is sent as it was.
///
/// Call it while the program has one thread. Throws Error when the repository is none or the port
/// cannot be had.
void ServeRepository(const ServeRequest& request, const std::function<void(int port)>& listening);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SERVE_H_
