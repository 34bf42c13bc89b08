#ifndef TOLM_SUPPORT_HTTP_SERVER_H_
#define TOLM_SUPPORT_HTTP_SERVER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/unique_descriptor.h"

namespace tolm::testing {

struct HttpRequest {
  std::string method;
  std::string target;  ///< As it was sent, with the query.
  std::string path;    ///< Without the query, percent-decoded.
  std::string query;   ///< As it was sent, without the "?".
  std::string user_agent;
  std::string authorization;
  std::string range;  ///< "bytes=7-", as it was sent.
};

/// What to send for a request. The members are used in this order.
struct HttpAnswer {
  std::chrono::milliseconds delay{0};
  /// Send nothing until HttpServer::Release() or the server's end; then what follows here.
  bool hang = false;
  /// Sent in place of the status line, the headers and the body, when set.
  std::optional<std::string> raw;
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  /// Content-Length to state: by default the true one.
  std::optional<std::uint64_t> stated_length;
  /// State no length: the body ends where the connection is closed.
  bool without_length = false;
  std::string body;
  /// Sent in place of the body when not empty, piece by piece.
  std::filesystem::path body_file;
  /// Before this byte of the body (or of what is raw) wait for HttpServer::Release() or the
  /// server's end. Its size: keep the connection open when all has been sent.
  std::optional<std::uint64_t> pause_at;
};

/// An HTTP/1.1 server on 127.0.0.1 with a port chosen by the system, running in threads of its own
/// from the constructor to the destructor; the destructor breaks off what is being sent. One
/// request a connection, GET and HEAD only. Sends nothing that it was not told to: no date, no
/// Last-Modified, no ranges but those that a handler makes.
///
/// All members may be called from any thread. Paths are keys in their decoded form, without the
/// query, and begin with "/". A path with a handler is answered by it; any other by the file below
/// the directory, or 404.
class HttpServer {
 public:
  using Handler = std::function<HttpAnswer(const HttpRequest&)>;
  /// Told of each request when its answer has been sent or has failed: status and bytes of the body
  /// sent.
  using Observer = std::function<void(const HttpRequest&, int status, std::uint64_t body_bytes)>;

  /// Serves the files below @p directory, which may change meanwhile; without one only what
  /// handlers give. Throws std::system_error when no port can be had.
  explicit HttpServer(const std::filesystem::path& directory = {}, Observer observer = nullptr);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::uint16_t Port() const { return port_; }
  /// "http://127.0.0.1:<port>" followed by @p path.
  std::string Url(const std::string& path) const;

  /// The handler runs in a connection's thread, several at a time; it may call this server.
  void SetHandler(const std::string& path, Handler handler);
  void SetAnswer(const std::string& path, HttpAnswer answer);
  void SetBody(const std::string& path, std::string body);
  /// Requests for the path get no answer before Release(), and then this body.
  void Hang(const std::string& path, std::string body = {});
  void Redirect(const std::string& path, const std::string& location);
  /// From now on the path is answered as if nothing had been set for it.
  void Reset(const std::string& path);

  /// Lets every request go on that hangs at this moment.
  void Release();

  /// Waits until @p path has been requested @p count times since the start; false when that did not
  /// happen in time.
  [[nodiscard]] bool WaitForRequest(const std::string& path, std::size_t count = 1,
                                    std::chrono::seconds timeout = std::chrono::seconds(60));
  /// All requests so far, in the order of their arrival.
  std::vector<HttpRequest> Requests() const;
  std::size_t RequestCount(const std::string& path) const;

 private:
  struct Connection {
    UniqueDescriptor socket;
    std::thread thread;
    bool finished = false;
  };

  class Body;

  void AcceptConnections();
  void JoinFinished();
  void Serve(Connection& connection);
  std::uint64_t Record(const HttpRequest& request);
  HttpAnswer AnswerTo(const HttpRequest& request);
  HttpAnswer AnswerFromDirectory(const std::string& path) const;
  bool WaitBeforeAnswer(const HttpAnswer& answer, std::uint64_t releases_seen);
  bool WaitForRelease(std::uint64_t releases_seen);
  std::uint64_t SendAnswer(int socket, const HttpAnswer& answer, Body& body, bool with_body,
                           std::uint64_t releases_seen);
  std::size_t RequestCountLocked(const std::string& path) const;

  const std::filesystem::path directory_;
  const Observer observer_;
  UniqueDescriptor listener_;
  std::uint16_t port_ = 0;

  mutable std::mutex mutex_;  // Guards everything below.
  std::condition_variable changed_;
  std::map<std::string, Handler> handlers_;
  std::vector<HttpRequest> requests_;
  std::list<Connection> connections_;
  std::uint64_t releases_ = 0;
  bool stopping_ = false;

  std::thread acceptor_;
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_HTTP_SERVER_H_
