#include "tolm/hwid.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>

#include "base/descriptor.h"
#include "platform/error.h"

namespace tolm::platform {
namespace {

constexpr char kMachineIdPath[] = "/etc/machine-id";
constexpr std::size_t kMachineIdDigits = 32;
constexpr std::size_t kDigestBytes = 32;

// This application's own key. It never changes: every device's identifier depends on it.
constexpr std::array<unsigned char, 16> kApplicationKey{
    0x5b, 0x1f, 0xd2, 0x0c, 0x93, 0x6e, 0x47, 0xa8, 0x8d, 0x35, 0xe1, 0x74, 0x2b, 0xc9, 0x06, 0xfa};

using MachineId = std::array<char, kMachineIdDigits>;

bool IsLowerHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

// Up to `size` bytes from the beginning of the file; a negative value on failure, with errno set.
ssize_t ReadBeginning(const char* path, char* buffer, std::size_t size) {
  const base::Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.IsOpen())
    return -1;
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t count = read(file.Get(), buffer + filled, size - filled);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return -1;
    if (count == 0)
      break;
    filled += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(filled);
}

// The machine id's 32 lower-case hexadecimal digits. A file that holds anything else (it is empty
// or says "uninitialized" until the first start has chosen an id), or nothing but zeros, identifies
// no machine.
std::optional<MachineId> ReadMachineId() {
  std::array<char, kMachineIdDigits + 2> text{};
  const ssize_t size = ReadBeginning(kMachineIdPath, text.data(), text.size());
  if (size < 0) {
    SetLastError(errno);
    return std::nullopt;
  }
  MachineId id{};
  std::copy_n(text.begin(), id.size(), id.begin());
  const auto length = static_cast<std::size_t>(size);
  const bool whole = length == id.size() || (length == id.size() + 1 && text[id.size()] == '\n');
  const bool only_zeros = std::all_of(id.begin(), id.end(), [](char c) { return c == '0'; });
  if (whole && !only_zeros && std::all_of(id.begin(), id.end(), IsLowerHexDigit))
    return id;
  SetLastError(ENODATA);
  return std::nullopt;
}

// HMAC-SHA256 of the machine id's digits under the application's key, as machine-id(5) asks of
// programs that show an identifier to others. `text` gets 64 hexadecimal digits.
bool WriteIdentifier(const MachineId& id, char* text) {
  std::array<unsigned char, kDigestBytes> digest;
  std::size_t digest_size = 0;
  const unsigned char* const done =
      EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, kApplicationKey.data(),
                kApplicationKey.size(), reinterpret_cast<const unsigned char*>(id.data()),
                id.size(), digest.data(), digest.size(), &digest_size);
  if (done == nullptr || digest_size != digest.size()) {
    SetLastError(EIO);
    return false;
  }
  constexpr char kDigits[] = "0123456789abcdef";
  for (const unsigned char byte : digest) {
    *text++ = kDigits[byte >> 4];
    *text++ = kDigits[byte & 0x0f];
  }
  return true;
}

}  // namespace
}  // namespace tolm::platform

tolmcrypto_hwid* tolmcrypto_hwid_init(void) {
  auto* const context = new (std::nothrow) tolmcrypto_hwid{};
  if (context == nullptr)
    tolm::platform::SetLastError(ENOMEM);
  return context;
}

int tolmcrypto_hwid_str(tolmcrypto_hwid* context, int length) {
  using namespace tolm::platform;
  if (context == nullptr) {
    SetLastError(EINVAL);
    return 0;
  }
  std::memset(context->text, 0, sizeof context->text);
  if (length < 1 || static_cast<std::size_t>(length) >= sizeof context->text) {
    SetLastError(EINVAL);
    return 0;
  }
  const std::optional<MachineId> id = ReadMachineId();
  if (!id || !WriteIdentifier(*id, context->text))
    return 0;
  // Nothing beyond the asked length stays behind the end.
  std::memset(context->text + length, 0, sizeof context->text - static_cast<std::size_t>(length));
  return 1;
}

void tolmcrypto_hwid_free(tolmcrypto_hwid* context) {
  delete context;
}
