#ifndef TOLM_VCDIFF_INPUT_H_
#define TOLM_VCDIFF_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vcdiff/descriptor.h"

namespace tolm::vcdiff {

/// Bytes that can be read at any place: a source, a delta, or what has been decoded so far.
/// Not thread-safe.
class Input {
 public:
  explicit Input(std::string name) : name_(std::move(name)) {}
  virtual ~Input() = default;
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  /// For messages.
  const std::string& Name() const noexcept { return name_; }
  virtual std::uint64_t Size() const noexcept = 0;

  /// The bytes in place, valid until the next call; null when they have to be read instead. The
  /// range must lie within Size().
  virtual const std::uint8_t* Map(std::uint64_t offset, std::uint64_t size) = 0;

  /// Copies the bytes. The range must lie within Size(). Throws Error(kIo).
  virtual void Read(std::uint64_t offset, std::uint8_t* to, std::size_t size) = 0;

  /// The bytes in place, or else read into @p buffer, which is made large enough. Valid until the
  /// next call. Throws Error(kIo).
  const std::uint8_t* View(std::uint64_t offset, std::size_t size,
                           std::vector<std::uint8_t>& buffer);

 private:
  std::string name_;
};

/// Bytes in memory that someone else owns.
class MemoryInput : public Input {
 public:
  MemoryInput(std::string name, const std::uint8_t* data, std::size_t size)
      : Input(std::move(name)), data_(data), size_(size) {}
  std::uint64_t Size() const noexcept override { return size_; }
  const std::uint8_t* Map(std::uint64_t offset, std::uint64_t size) override;
  void Read(std::uint64_t offset, std::uint8_t* to, std::size_t size) override;

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};

enum class FileAccess {
  /// By positioned reads. A file that shrinks underneath is an Error(kIo).
  kRead,
  /// By mapping pieces of it, several times as fast for short copies. When the file shrinks
  /// underneath, the system sends SIGBUS to the thread that decodes: only for programs that handle
  /// the signal. What cannot be mapped is read.
  kMap,
};

/// A regular file, as large as it was when it was opened.
class FileInput : public Input {
 public:
  /// Opens it. Throws Error(kIo), also for what is no regular file.
  FileInput(const std::string& path, FileAccess access);
  /// Reads through a descriptor of someone else's, open for reading; @p size may grow by Grow().
  FileInput(std::string name, int descriptor, std::uint64_t size, FileAccess access);
  ~FileInput() override;

  std::uint64_t Size() const noexcept override { return size_; }
  const std::uint8_t* Map(std::uint64_t offset, std::uint64_t size) override;
  void Read(std::uint64_t offset, std::uint8_t* to, std::size_t size) override;

  void Grow(std::uint64_t size) noexcept { size_ = size; }
  /// Permission bits when it was opened.
  unsigned int Permissions() const noexcept { return permissions_; }

 private:
  void Unmap() noexcept;

  Descriptor owned_;
  int descriptor_;
  std::uint64_t size_ = 0;
  unsigned int permissions_ = 0;
  FileAccess access_;
  std::uint8_t* mapped_ = nullptr;
  std::uint64_t mapped_offset_ = 0;
  std::size_t mapped_size_ = 0;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_INPUT_H_
