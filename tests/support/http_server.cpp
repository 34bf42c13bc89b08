#include "tests/support/http_server.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

// Requests may carry long lists in their query.
constexpr std::size_t kRequestLimitBytes = 1024 * 1024;
constexpr std::uint64_t kChunkBytes = 64 * 1024;
constexpr std::chrono::milliseconds kAcceptRetry(10);

struct BadRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), "cannot " + what);
}

UniqueDescriptor Listen() {
  UniqueDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (!listener ||
      bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener.Get(), SOMAXCONN) != 0) {
    Fail("listen on 127.0.0.1");
  }
  return listener;
}

std::uint16_t BoundPort(const UniqueDescriptor& listener) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  if (getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    Fail("find the port");
  }
  return ntohs(address.sin_port);
}

// The request line and the header lines.
std::string ReadHead(int socket) {
  std::string head;
  std::array<char, 4096> buffer;
  while (head.find("\r\n\r\n") == std::string::npos) {
    if (head.size() > kRequestLimitBytes) {
      throw BadRequest("the request is too long");
    }
    const ssize_t count = recv(socket, buffer.data(), buffer.size(), 0);
    if (count <= 0) {
      throw BadRequest("the request has no end");
    }
    head.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return head;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const int lower = std::tolower(static_cast<unsigned char>(c));
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string PercentDecode(const std::string& text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? HexDigit(text[i + 2]) : -1;
    if (high < 0 || low < 0 || (high == 0 && low == 0)) {
      throw BadRequest("the path is wrongly encoded");
    }
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
}

// A client that takes this server for its proxy sends the whole URL.
std::string WithoutAuthority(const std::string& target) {
  const std::string scheme = "http://";
  if (target.compare(0, scheme.size(), scheme) != 0) {
    return target;
  }
  const std::size_t slash = target.find('/', scheme.size());
  return slash == std::string::npos ? "/" : target.substr(slash);
}

std::string HeaderValue(const std::string& line, const std::string& lower_name) {
  const std::size_t colon = line.find(':');
  if (colon != lower_name.size() ||
      !std::equal(lower_name.begin(), lower_name.end(), line.begin(), [](char a, char b) {
        return a == std::tolower(static_cast<unsigned char>(b));
      })) {
    return "";
  }
  const std::size_t begin = line.find_first_not_of(" \t", colon + 1);
  const std::size_t end = line.find_last_not_of(" \t\r");
  return begin == std::string::npos || begin > end ? "" : line.substr(begin, end - begin + 1);
}

HttpRequest ParseHead(const std::string& head) {
  std::istringstream lines(head);
  std::string line;
  std::getline(lines, line);
  HttpRequest request;
  std::string version;
  std::istringstream(line) >> request.method >> request.target >> version;
  const std::string target = WithoutAuthority(request.target);
  if (version.compare(0, 7, "HTTP/1.") != 0 || target.empty() || target[0] != '/') {
    throw BadRequest("this is no HTTP/1 request");
  }
  const std::size_t question_mark = target.find('?');
  request.path = PercentDecode(target.substr(0, question_mark));
  if (question_mark != std::string::npos) {
    request.query = target.substr(question_mark + 1);
  }
  while (std::getline(lines, line)) {
    const std::string user_agent = HeaderValue(line, "user-agent");
    if (!user_agent.empty()) {
      request.user_agent = user_agent;
    }
    const std::string authorization = HeaderValue(line, "authorization");
    if (!authorization.empty()) {
      request.authorization = authorization;
    }
    const std::string range = HeaderValue(line, "range");
    if (!range.empty()) {
      request.range = range;
    }
  }
  return request;
}

HttpAnswer ErrorAnswer(int status, const std::string& text) {
  HttpAnswer answer;
  answer.status = status;
  answer.body = text + "\n";
  return answer;
}

const char* Reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return "Status";
  }
}

std::string FormatHead(const HttpAnswer& answer, std::uint64_t body_size) {
  std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " + Reason(answer.status);
  for (const auto& [name, value] : answer.headers) {
    head += "\r\n" + name + ": " + value;
  }
  if (!answer.without_length) {
    head += "\r\nContent-Length: " + std::to_string(answer.stated_length.value_or(body_size));
  }
  return head + "\r\nConnection: close\r\n\r\n";
}

// Returns how much of the data went out; less than all of it when the client or the server has
// gone.
std::size_t Send(int socket, const std::string& data) {
  std::size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t count = send(socket, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (count < 0) {
      break;
    }
    sent += static_cast<std::size_t>(count);
  }
  return sent;
}

bool IsInside(const fs::path& path, const fs::path& directory) {
  return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first ==
         directory.end();
}

}  // namespace

// The body of one answer, from memory or from a file, that it holds open.
class HttpServer::Body {
 public:
  explicit Body(const HttpAnswer& answer)
      : text_(answer.raw.value_or(answer.body)), size_(text_.size()) {
    if (answer.raw || answer.body_file.empty()) {
      return;
    }
    file_ = UniqueDescriptor(open(answer.body_file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (!file_ || fstat(file_.Get(), &status) != 0) {
      Fail("read " + answer.body_file.string());
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
  }

  std::uint64_t Size() const { return size_; }

  // Gives the next piece, of `limit` bytes at most, none at the end. Not beyond the size that was
  // announced, though the file may have grown.
  std::string Next(std::uint64_t limit) {
    std::string piece(std::min({limit, kChunkBytes, size_ - position_}), '\0');
    if (file_) {
      const ssize_t count = read(file_.Get(), piece.data(), piece.size());
      piece.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    } else {
      text_.copy(piece.data(), piece.size(), position_);
    }
    position_ += piece.size();
    return piece;
  }

 private:
  std::string text_;
  std::uint64_t size_;
  std::uint64_t position_ = 0;
  UniqueDescriptor file_;
};

HttpServer::HttpServer(const fs::path& directory, Observer observer)
    : directory_(directory.empty() ? directory : fs::canonical(directory)),
      observer_(std::move(observer)),
      listener_(Listen()),
      port_(BoundPort(listener_)),
      acceptor_([this] { AcceptConnections(); }) {}

HttpServer::~HttpServer() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (const Connection& connection : connections_) {
      shutdown(connection.socket.Get(), SHUT_RDWR);
    }
  }
  changed_.notify_all();
  shutdown(listener_.Get(), SHUT_RDWR);  // Ends the waiting accept.
  acceptor_.join();
  for (Connection& connection : connections_) {
    connection.thread.join();
  }
}

std::string HttpServer::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void HttpServer::SetHandler(const std::string& path, Handler handler) {
  const std::lock_guard<std::mutex> lock(mutex_);
  handlers_[path] = std::move(handler);
}

void HttpServer::SetAnswer(const std::string& path, HttpAnswer answer) {
  SetHandler(path, [answer = std::move(answer)](const HttpRequest&) { return answer; });
}

void HttpServer::SetBody(const std::string& path, std::string body) {
  HttpAnswer answer;
  answer.body = std::move(body);
  SetAnswer(path, std::move(answer));
}

void HttpServer::Hang(const std::string& path, std::string body) {
  HttpAnswer answer;
  answer.hang = true;
  answer.body = std::move(body);
  SetAnswer(path, std::move(answer));
}

void HttpServer::Redirect(const std::string& path, const std::string& location) {
  HttpAnswer answer;
  answer.status = 302;
  answer.headers.emplace_back("Location", location);
  SetAnswer(path, std::move(answer));
}

void HttpServer::Reset(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
  handlers_.erase(path);
}

void HttpServer::Release() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++releases_;
  }
  changed_.notify_all();
}

bool HttpServer::WaitForRequest(const std::string& path, std::size_t count,
                                std::chrono::seconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return RequestCountLocked(path) >= count; });
}

std::vector<HttpRequest> HttpServer::Requests() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::size_t HttpServer::RequestCount(const std::string& path) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return RequestCountLocked(path);
}

std::size_t HttpServer::RequestCountLocked(const std::string& path) const {
  return static_cast<std::size_t>(
      std::count_if(requests_.begin(), requests_.end(),
                    [&](const HttpRequest& request) { return request.path == path; }));
}

void HttpServer::AcceptConnections() {
  for (;;) {
    UniqueDescriptor socket(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopping_) {
      return;
    }
    JoinFinished();
    if (!socket) {
      changed_.wait_for(lock, kAcceptRetry);  // Out of descriptors, most likely.
      continue;
    }
    Connection& connection = connections_.emplace_back();
    connection.socket = std::move(socket);
    connection.thread = std::thread([this, &connection] { Serve(connection); });
  }
}

// With the mutex held: a thread marks itself finished as the last thing that it does with it.
void HttpServer::JoinFinished() {
  connections_.remove_if([](Connection& connection) {
    if (connection.finished) {
      connection.thread.join();
    }
    return connection.finished;
  });
}

void HttpServer::Serve(Connection& connection) {
  const int socket = connection.socket.Get();
  HttpRequest request;
  HttpAnswer answer;
  std::optional<Body> body;
  std::uint64_t releases_seen = 0;
  try {
    request = ParseHead(ReadHead(socket));
    releases_seen = Record(request);
    answer = AnswerTo(request);
    body.emplace(answer);
  } catch (const BadRequest& error) {
    answer = ErrorAnswer(400, error.what());
  } catch (const std::exception& error) {
    answer = ErrorAnswer(500, error.what());
  }
  if (!body) {
    body.emplace(answer);
  }
  std::uint64_t sent = 0;
  if (WaitBeforeAnswer(answer, releases_seen)) {
    sent = SendAnswer(socket, answer, *body, request.method != "HEAD", releases_seen);
  }
  if (observer_) {
    observer_(request, answer.status, sent);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  connection.socket.Close();
  connection.finished = true;
}

// Returns the number of releases up to this request: only a later one is meant for it.
std::uint64_t HttpServer::Record(const HttpRequest& request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  requests_.push_back(request);
  changed_.notify_all();
  return releases_;
}

HttpAnswer HttpServer::AnswerTo(const HttpRequest& request) {
  Handler handler;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = handlers_.find(request.path);
    if (found != handlers_.end()) {
      handler = found->second;
    }
  }
  if (request.method != "GET" && request.method != "HEAD") {
    return ErrorAnswer(405, "only GET and HEAD are known here");
  }
  return handler ? handler(request) : AnswerFromDirectory(request.path);
}

HttpAnswer HttpServer::AnswerFromDirectory(const std::string& path) const {
  std::error_code error;
  // Resolved first, compared afterwards: neither ".." nor a link leads out of the directory.
  const fs::path file = fs::canonical(directory_.string() + path, error);
  if (directory_.empty() || error || !IsInside(file, directory_) || !fs::is_regular_file(file)) {
    return ErrorAnswer(404, "there is no such file");
  }
  HttpAnswer answer;
  answer.body_file = file;
  return answer;
}

// Returns false when the server is about to end.
bool HttpServer::WaitBeforeAnswer(const HttpAnswer& answer, std::uint64_t releases_seen) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (changed_.wait_for(lock, answer.delay, [&] { return stopping_; })) {
      return false;
    }
  }
  return !answer.hang || WaitForRelease(releases_seen);
}

// Returns the bytes of the body that went out.
std::uint64_t HttpServer::SendAnswer(int socket, const HttpAnswer& answer, Body& body,
                                     bool with_body, std::uint64_t releases_seen) {
  const std::string head = answer.raw ? "" : FormatHead(answer, body.Size());
  if (Send(socket, head) != head.size() || !with_body) {
    return 0;
  }
  std::uint64_t pause_at = answer.pause_at.value_or(UINT64_MAX);
  std::uint64_t sent = 0;
  for (;;) {
    if (sent == pause_at) {
      WaitForRelease(releases_seen);
      pause_at = UINT64_MAX;
    }
    const std::string piece = body.Next(pause_at - sent);
    const std::size_t count = Send(socket, piece);
    sent += count;
    if (piece.empty() || count != piece.size()) {
      break;
    }
  }
  return sent;
}

// Returns false when the server is about to end.
bool HttpServer::WaitForRelease(std::uint64_t releases_seen) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return stopping_ || releases_ != releases_seen; });
  return !stopping_;
}

}  // namespace tolm::testing
