#include "operation/journal.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>

#include "base/descriptor.h"

namespace tolm::operation {
namespace {

constexpr char kSocket[] = "/run/systemd/journal/socket";

std::string LittleEndian(std::uint64_t number) {
  std::string bytes;
  for (std::size_t at = 0; at < sizeof number; ++at) {
    bytes += static_cast<char>(number >> (8 * at) & 0xff);
  }
  return bytes;
}

std::string Beginning(const std::string& value) {
  std::size_t size = std::min(value.size(), kMostJournalBytes);
  // Not within a character of UTF-8; what is none loses three bytes at most.
  for (int i = 0; i < 3 && size < value.size() && (value[size] & 0xc0) == 0x80; ++i) {
    --size;
  }
  return value.substr(0, size);
}

// A value that has lines says before how long it is.
void Append(const std::string& name, const std::string& whole, std::string& datagram) {
  const std::string value = Beginning(whole);
  if (value.find('\n') == std::string::npos) {
    datagram += name + '=' + value + '\n';
  } else {
    datagram += name + '\n' + LittleEndian(value.size()) + value + '\n';
  }
}

void Send(const std::string& datagram) {
  const base::Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.IsOpen()) {
    return;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::copy_n(kSocket, sizeof kSocket, address.sun_path);
  // The system log has what matters; this is for programs, and nobody misses it where it fails.
  static_cast<void>(::sendto(socket.Get(), datagram.data(), datagram.size(),
                             MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

}  // namespace

void SendToJournal(const JournalFields& fields) noexcept {
  try {
    std::string datagram;
    for (const auto& [name, value] : fields) {
      Append(name, value, datagram);
    }
    Send(datagram);
  } catch (const std::exception&) {
    // Too little memory: as if there were no journal.
  }
}

}  // namespace tolm::operation
