#ifndef TOLM_VCDIFF_OUTPUT_H_
#define TOLM_VCDIFF_OUTPUT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vcdiff/background_writer.h"
#include "vcdiff/descriptor.h"
#include "vcdiff/input.h"

namespace tolm::vcdiff {

/// Receives a target, front to back.
class Sink {
 public:
  virtual ~Sink() = default;
  /// The bytes must stay as they are until Settle() has returned: they may be written meanwhile.
  /// Throws Error(kIo).
  virtual void Write(const std::uint8_t* data, std::size_t size) = 0;
  /// Waits until everything is written. Throws Error(kIo).
  virtual void Settle() {}
  /// What has been written so far, for windows that copy from the target. After Settle(). Throws
  /// Error(kIo).
  virtual Input& Written() = 0;
};

/// Keeps the target in memory.
class MemorySink : public Sink {
 public:
  void Write(const std::uint8_t* data, std::size_t size) override {
    bytes_.insert(bytes_.end(), data, data + size);
  }
  Input& Written() override { return written_; }
  const std::vector<std::uint8_t>& Bytes() const { return bytes_; }

 private:
  /// Never mapped: the bytes move when more are written.
  class WrittenInput : public Input {
   public:
    explicit WrittenInput(const std::vector<std::uint8_t>& bytes)
        : Input("target"), bytes_(bytes) {}
    std::uint64_t Size() const noexcept override { return bytes_.size(); }
    const std::uint8_t* Map(std::uint64_t offset, std::uint64_t size) override;
    void Read(std::uint64_t offset, std::uint8_t* to, std::size_t size) override;

   private:
    const std::vector<std::uint8_t>& bytes_;
  };

  std::vector<std::uint8_t> bytes_;
  WrittenInput written_{bytes_};
};

/// Forgets the target. Not for deltas with windows that copy from the target: Written() throws
/// std::logic_error.
class NullSink : public Sink {
 public:
  void Write(const std::uint8_t* /*data*/, std::size_t /*size*/) override {}
  Input& Written() override;
};

/// A file that appears under its name only when it is complete. Until then it has a temporary name
/// in the same directory, which is removed by the destructor. An existing regular file or symbolic
/// link of the name is replaced by Commit() and left alone by a failure. Long files are written by
/// a thread of their own.
class OutputFile : public Sink {
 public:
  /// Makes the temporary file with these permission bits. Throws Error(kIo), also when @p path
  /// exists and is no file.
  OutputFile(const std::string& path, unsigned int permissions, FileAccess access);
  ~OutputFile() override;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// To be unlinked by a program that is ended by a signal; empty after Commit().
  const std::string& TemporaryPath() const noexcept { return temporary_; }

  void Write(const std::uint8_t* data, std::size_t size) override;
  void Settle() override { writer_.Settle(); }
  Input& Written() override { return written_; }
  /// Gives the file its name. Throws Error(kIo); the name is then as it was before.
  void Commit();

 private:
  std::string path_;
  std::string temporary_;
  Descriptor file_;
  FileInput written_;
  BackgroundWriter writer_;  // Ends before the descriptor is closed.
};

/// A file without a name in $TMPDIR or /tmp, for checking deltas that copy from the target.
class UnnamedFile : public Sink {
 public:
  /// Throws Error(kIo).
  explicit UnnamedFile(FileAccess access);
  void Write(const std::uint8_t* data, std::size_t size) override;
  Input& Written() override { return written_; }

 private:
  Descriptor file_;
  FileInput written_;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_OUTPUT_H_
