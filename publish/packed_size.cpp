#include "publish/packed_size.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <zstd.h>

#include <cerrno>
#include <new>

#include "base/descriptor.h"
#include "package/error.h"

namespace tolm::publish {
namespace {

using package::Code;

// As powers of two. Windows of payloads are larger than these.
constexpr int kSmallestWindowBits = 10;
constexpr int kLargestSmallWindowBits = 22;

// 0 for the level's own window.
int WindowBitsFor(std::uint64_t size) {
  for (int bits = kSmallestWindowBits; bits < kLargestSmallWindowBits; ++bits) {
    if (size <= std::uint64_t{1} << bits) {
      return bits;
    }
  }
  return 0;
}

std::size_t Check(std::size_t result) {
  if (ZSTD_isError(result) != 0) {
    throw package::Error(Code::kInternal, std::string("zstd: ") + ZSTD_getErrorName(result));
  }
  return result;
}

}  // namespace

void PackedSizeMeter::ContextDelete::operator()(ZSTD_CCtx_s* context) const noexcept {
  ZSTD_freeCCtx(context);
}

PackedSizeMeter::PackedSizeMeter()
    : context_(ZSTD_createCCtx()), input_(ZSTD_CStreamInSize()), output_(ZSTD_CStreamOutSize()) {
  if (!context_) {
    throw std::bad_alloc();
  }
}

PackedSizeMeter::~PackedSizeMeter() = default;

std::optional<std::uint64_t> PackedSizeMeter::Measure(const std::string& path, int level,
                                                      std::uint64_t limit) {
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  struct stat status {};
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) {
    throw package::SystemError(Code::kRead, path, errno);
  }
  // One context for all files, and no larger tables than the file needs: clearing them would cost
  // more than compressing a small file. The search is that of the full window.
  Check(ZSTD_CCtx_reset(context_.get(), ZSTD_reset_session_only));
  Check(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, level));
  Check(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_windowLog,
                               WindowBitsFor(static_cast<std::uint64_t>(status.st_size))));
  std::uint64_t read = 0;
  std::uint64_t packed = 0;
  for (;;) {
    const std::int64_t count = base::ReadAt(file.Get(), input_.data(), input_.size(), read);
    if (count < 0) {
      throw package::SystemError(Code::kRead, path, errno);
    }
    packed += Compress(input_.data(), static_cast<std::size_t>(count), count == 0);
    if (packed > limit) {
      return std::nullopt;
    }
    if (count == 0) {
      return packed;
    }
    read += static_cast<std::uint64_t>(count);
  }
}

// Returns the bytes that came out.
std::uint64_t PackedSizeMeter::Compress(const char* data, std::size_t size, bool is_last) {
  ZSTD_inBuffer in{data, size, 0};
  std::uint64_t packed = 0;
  for (;;) {
    ZSTD_outBuffer out{output_.data(), output_.size(), 0};
    const std::size_t rest = Check(
        ZSTD_compressStream2(context_.get(), &out, &in, is_last ? ZSTD_e_end : ZSTD_e_continue));
    packed += out.pos;
    if (is_last ? rest == 0 : in.pos == in.size) {
      return packed;
    }
  }
}

}  // namespace tolm::publish
