#ifndef TOLM_PACKAGE_PIECE_QUEUE_H_
#define TOLM_PACKAGE_PIECE_QUEUE_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tolm::package {

/// Hands the same stream to several takers, each in a thread of its own. Holds a few pieces only:
/// who is fast waits for who is slow. Used by one thread.
class PieceQueue {
 public:
  /// Called with each piece in order, and at the end with none (a null pointer). What it throws
  /// ends the stream for all.
  using Taker = std::function<void(const std::string* piece)>;

  /// So many pieces are kept for the slowest taker.
  static constexpr std::size_t kMostPieces = 8;

  /// Starts the threads, which hear no signals. Throws std::system_error.
  explicit PieceQueue(std::vector<Taker> takers);
  /// Without Finish() takers get no end and no more pieces; waits until they return.
  ~PieceQueue();
  PieceQueue(const PieceQueue&) = delete;
  PieceQueue& operator=(const PieceQueue&) = delete;

  /// Throws what a taker has thrown; then nothing is handed out any more.
  void Push(std::string piece);
  /// Waits until all takers have had everything, and the end. Throws what one has thrown.
  void Finish();

 private:
  struct Branch {
    Taker taker;
    std::deque<std::shared_ptr<const std::string>> pieces;
    std::thread thread;
  };

  void Run(Branch& branch);
  std::shared_ptr<const std::string> Next(Branch& branch);
  bool IsOver();
  bool HasRoom() const;
  void Add(const std::shared_ptr<const std::string>& piece);
  void Fail(std::exception_ptr failure);
  void Join();

  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_over_ = false;  // nothing is handed out any more
  std::exception_ptr failure_;
  std::vector<std::unique_ptr<Branch>> branches_;
};

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_PIECE_QUEUE_H_
