#include "tests/support/journal_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

const fs::path kPath = "/run/systemd/journal/socket";

// Takes so many bytes from the front.
std::string Take(std::string& rest, std::size_t size) {
  if (size > rest.size()) {
    throw std::runtime_error("the datagram ends too early");
  }
  const std::string taken = rest.substr(0, size);
  rest.erase(0, size);
  return taken;
}

std::string TakeLine(std::string& rest) {
  const std::string line = Take(rest, rest.find('\n'));
  Take(rest, 1);
  return line;
}

std::string TakeBinary(std::string& rest) {
  std::uint64_t size = 0;
  const std::string bytes = Take(rest, sizeof size);
  for (std::size_t at = sizeof size; at-- > 0;) {
    size = size << 8 | static_cast<unsigned char>(bytes[at]);
  }
  std::string value = Take(rest, size);
  if (Take(rest, 1) != "\n") {
    throw std::runtime_error("no end of line behind a value");
  }
  return value;
}

JournalEntry Parse(std::string rest) {
  JournalEntry entry;
  while (!rest.empty()) {
    const std::string line = TakeLine(rest);
    const std::size_t equals = line.find('=');
    const bool is_new = equals == std::string::npos
                            ? entry.emplace(line, TakeBinary(rest)).second
                            : entry.emplace(line.substr(0, equals), line.substr(equals + 1)).second;
    if (!is_new) {
      throw std::runtime_error("a field is there twice: " + line);
    }
  }
  return entry;
}

}  // namespace

JournalSocket::JournalSocket() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  fs::create_directories(kPath.parent_path());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = kPath.string();
  std::copy(path.begin(), path.end(), address.sun_path);
  if (bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

JournalSocket::~JournalSocket() {
  std::error_code ignored;
  fs::remove(kPath, ignored);
}

std::vector<JournalEntry> JournalSocket::Entries() const {
  std::vector<JournalEntry> entries;
  std::string datagram(1 << 20, '\0');
  while (true) {
    const ssize_t size = recv(socket_.Get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
    if (size < 0) {
      return entries;
    }
    entries.push_back(Parse(datagram.substr(0, static_cast<std::size_t>(size))));
  }
}

}  // namespace tolm::testing
