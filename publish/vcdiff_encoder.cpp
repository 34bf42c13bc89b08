#include "publish/vcdiff_encoder.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "base/descriptor.h"
#include "package/error.h"
#include "publish/program.h"

namespace tolm::publish {
namespace {

constexpr std::uint64_t kSmallestWindow = std::uint64_t{512} * 1024;
constexpr std::uint64_t kLargestWindow = std::uint64_t{2} * 1024 * 1024 * 1024;

// A path that cannot be taken for an option.
std::string Absolute(const std::string& path) {
  return std::filesystem::absolute(path).string();
}

}  // namespace

std::uint64_t SourceWindowBytes(std::uint64_t source_bytes, std::uint64_t limit_bytes) {
  const std::uint64_t limit = std::min(limit_bytes, kLargestWindow);
  std::uint64_t window = kSmallestWindow;
  while (window < source_bytes && window * 2 <= limit) {
    window *= 2;
  }
  return window;
}

std::uint64_t VcdiffMemoryBytes(std::uint64_t window_bytes) {
  return 3 * window_bytes + std::uint64_t{64} * 1024 * 1024;
}

void EncodeVcdiff(const std::string& source, const std::string& target, const std::string& delta,
                  std::uint64_t window_bytes) {
  base::Descriptor out(::open(delta.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!out.IsOpen()) {
    throw package::WriteError(delta, errno);
  }
  // -D: it would otherwise make the delta for what compressed files hold, and devices patch the
  // files themselves. The descriptor instead of a name: an encoder that outlives a killed publisher
  // must not write where the next one works.
  std::vector<std::string> arguments = {"-e", "-9", "-c", "-D", "-A", "-S", "none"};
  for (const std::string& argument : {std::string("-B"), std::to_string(window_bytes),
                                      std::string("-s"), Absolute(source), Absolute(target)}) {
    arguments.push_back(argument);
  }
  // XDELTA may hold further options.
  RunProgram({"xdelta3", "xdelta3"}, {arguments, out.Get(), -1, {"XDELTA"}});
  if (const int reason = out.Close(); reason != 0) {
    throw package::WriteError(delta, reason);
  }
}

}  // namespace tolm::publish
