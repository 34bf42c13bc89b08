#ifndef TOLM_VCDIFF_BACKGROUND_WRITER_H_
#define TOLM_VCDIFF_BACKGROUND_WRITER_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace tolm::vcdiff {

/// Writes pieces in their order in a thread of its own, so that decoding goes on meanwhile. The
/// thread is started by the first piece that is worth it; a file of a few kilobytes needs none.
/// For one calling thread.
class BackgroundWriter {
 public:
  using Write = std::function<void(const std::uint8_t* data, std::size_t size)>;

  /// @p write may throw; what it throws comes out of the next call of Push() or Settle().
  explicit BackgroundWriter(Write write) : write_(std::move(write)) {}
  /// Waits for the piece that is being written; what was not begun is dropped.
  ~BackgroundWriter();
  BackgroundWriter(const BackgroundWriter&) = delete;
  BackgroundWriter& operator=(const BackgroundWriter&) = delete;

  /// The bytes must stay as they are until Settle() has returned.
  void Push(const std::uint8_t* data, std::size_t size);
  /// Waits until everything is written.
  void Settle();

 private:
  /// Shorter pieces are written at once, unless others wait before them.
  static constexpr std::size_t kWorthAThread = 64U << 10;

  struct Piece {
    const std::uint8_t* data;
    std::size_t size;
  };

  void Work();
  void RethrowFailure();

  Write write_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable to_do_;
  std::condition_variable done_;
  std::deque<Piece> pieces_;  // The first is being written.
  bool is_ending_ = false;
  std::exception_ptr failure_;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_BACKGROUND_WRITER_H_
