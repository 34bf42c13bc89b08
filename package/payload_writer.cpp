#include "package/payload_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "package/encoder.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/piece_queue.h"

namespace tolm::package {
namespace {

constexpr char kShown[] = "payload";  // in messages

base::Descriptor NamelessFile(const std::string& directory) {
  std::string path = directory + "/.payload.XXXXXX";
  base::Descriptor file(::mkostemp(path.data(), O_CLOEXEC));
  if (!file.IsOpen() || ::unlink(path.c_str()) != 0) {
    throw WriteError(path, errno);
  }
  return file;
}

void WriteTo(int fd, const char* data, std::size_t size) {
  if (const int reason = base::WriteAll(fd, data, size); reason != 0) {
    throw UnwrittenPart(kShown, fd, reason);
  }
}

// The stream compressed in one way, into a file.
class Candidate {
 public:
  Candidate(Compression compression, const EncoderSettings& settings, std::uint64_t trial_bytes,
            int fd)
      : fd_(fd),
        trial_end_(trial_bytes),
        encoder_(NewEncoder(compression, settings, [this](const char* data, std::size_t size) {
          WriteTo(fd_, data, size);
          written_bytes_ += size;
        })) {}

  // In a thread of its own.
  void Take(const std::string* piece) {
    if (!encoder_) {
      return;
    }
    if (piece == nullptr) {
      encoder_->Finish();
      encoder_.reset();
      return;
    }
    encoder_->Write(piece->data(), piece->size());
    const bool was_tried = taken_bytes_ >= trial_end_;
    taken_bytes_ += piece->size();
    if (!was_tried && taken_bytes_ >= trial_end_) {
      trial_bytes_ = static_cast<std::int64_t>(written_bytes_);
    }
  }

  // Whatever comes is not taken any more; by the same thread.
  void GiveUp() { encoder_.reset(); }

  int fd() const { return fd_; }
  std::uint64_t written_bytes() const { return written_bytes_; }
  // After the trial; by any thread.
  bool HasTried() const { return trial_bytes_ >= 0; }
  std::uint64_t trial_bytes() const { return static_cast<std::uint64_t>(trial_bytes_.load()); }

 private:
  const int fd_;
  const std::uint64_t trial_end_;
  std::uint64_t taken_bytes_ = 0;
  std::uint64_t written_bytes_ = 0;
  std::atomic<std::int64_t> trial_bytes_{-1};
  std::unique_ptr<Encoder> encoder_;
};

// Whether it has turned out already that xz is not worth its time. What is compared was made of the
// same bytes, so it does not matter who was there first.
bool IsHopeless(const Candidate& xz, const Candidate& zstd) {
  return xz.HasTried() && zstd.HasTried() && !XzPays(xz.trial_bytes(), zstd.trial_bytes());
}

struct Source {
  const base::Descriptor directory;
  const TreeSize size;
};

void Pack(const Source& source, const Seal& seal, std::vector<PieceQueue::Taker> takers,
          const Progress& progress) {
  PieceQueue queue(std::move(takers));
  TarWriter writer([&queue](std::string piece) { queue.Push(std::move(piece)); }, progress,
                   source.size.has_only_ascii);
  writer.AddSeal(seal);
  writer.AddTree(source.directory);
  writer.Finish();
  queue.Finish();
}

// In place of what is in the target from its beginning on.
void CopyOver(const Candidate& from, int to, std::int64_t begin) {
  if (::ftruncate(to, begin) != 0 || ::lseek(to, begin, SEEK_SET) < 0) {
    throw UnwrittenPart(kShown, to, errno);
  }
  std::vector<char> piece(TarWriter::kPieceBytes);
  for (std::uint64_t done = 0; done < from.written_bytes();) {
    const std::int64_t count = base::ReadAt(from.fd(), piece.data(), piece.size(), done);
    if (count <= 0) {
      throw UnreadPart(kShown, from.fd(), count < 0 ? errno : EIO);
    }
    WriteTo(to, piece.data(), static_cast<std::size_t>(count));
    done += static_cast<std::uint64_t>(count);
  }
}

std::uint64_t PackOneWay(const Source& source, const Seal& seal, Compression compression,
                         const EncoderSettings& settings, const PayloadTarget& target,
                         const Progress& progress) {
  Candidate only(compression, settings, 0, target.fd);
  Pack(source, seal, {[&only](const std::string* piece) { only.Take(piece); }}, progress);
  return only.written_bytes();
}

// xz goes straight into the target: it is the one that is mostly taken.
std::uint64_t PackBothWays(const Source& source, const Seal& seal, const EncoderSettings& settings,
                           std::uint64_t trial_bytes, const PayloadTarget& target,
                           const Progress& progress) {
  const std::int64_t begin = ::lseek(target.fd, 0, SEEK_CUR);
  if (begin < 0) {
    throw UnwrittenPart(kShown, target.fd, errno);
  }
  const base::Descriptor spare = NamelessFile(target.spare_directory);
  Candidate xz(Compression::kXz, settings, trial_bytes, target.fd);
  Candidate zstd(Compression::kZstd, settings, trial_bytes, spare.Get());
  const auto take_xz = [&](const std::string* piece) {
    if (IsHopeless(xz, zstd)) {
      xz.GiveUp();
    }
    xz.Take(piece);
  };
  const auto take_zstd = [&](const std::string* piece) { zstd.Take(piece); };
  Pack(source, seal, {take_xz, take_zstd}, progress);
  if (!IsHopeless(xz, zstd) && XzPays(xz.written_bytes(), zstd.written_bytes())) {
    return xz.written_bytes();
  }
  CopyOver(zstd, target.fd, begin);
  return zstd.written_bytes();
}

}  // namespace

std::uint64_t PackingMemoryBytes(const Packing& packing) {
  const std::uint64_t xz = MostEncoderBytes(Compression::kXz, packing.WindowBytes());
  const std::uint64_t zstd = MostEncoderBytes(Compression::kZstd, packing.WindowBytes());
  switch (packing.compression) {
    case CompressionChoice::kXz:
      return xz;
    case CompressionChoice::kZstd:
      return zstd;
    case CompressionChoice::kAuto:
      break;
  }
  return xz + zstd;
}

std::uint64_t WritePayload(const std::string& source_directory, const Seal& seal,
                           const Packing& packing, const PayloadTarget& target,
                           const Progress& progress) {
  base::Descriptor directory(::open(source_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.IsOpen()) {
    throw SystemError(Code::kRead, source_directory, errno);
  }
  const Source source{std::move(directory), MeasureTree(source_directory)};
  const EncoderSettings settings{EffortFor(source.size.content_bytes), source.size.tar_bytes,
                                 packing.WindowBytes()};
  try {
    switch (packing.compression) {
      case CompressionChoice::kXz:
        return PackOneWay(source, seal, Compression::kXz, settings, target, progress);
      case CompressionChoice::kZstd:
        return PackOneWay(source, seal, Compression::kZstd, settings, target, progress);
      case CompressionChoice::kAuto:
        break;
    }
    return PackBothWays(source, seal, settings, packing.trial_bytes, target, progress);
  } catch (const std::system_error& error) {
    throw Error(Code::kInternal, std::string("no thread for packing: ") + error.what());
  }
}

}  // namespace tolm::package
