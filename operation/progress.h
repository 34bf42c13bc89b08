#ifndef TOLM_OPERATION_PROGRESS_H_
#define TOLM_OPERATION_PROGRESS_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "operation/platform_calls.h"

namespace tolm::operation {

/// What a line of progress tells.
struct ProgressView {
  std::string database;
  Step step;
  std::chrono::milliseconds passed{0};  ///< Since the step began.
  std::uint64_t bytes = 0;              ///< Of a download, so far.
  std::optional<std::uint64_t> total;   ///< Of a download, where it is known.
  bool ending = false;                  ///< A signal has been received.
  std::uint64_t bytes_before = 0;       ///< Of the bytes, what an earlier download has received.
};

/// Whether the step is about a delta's package, by the name that the library gives to it.
bool IsDelta(const Step& step);

/// The step in words: "downloading".
std::string StepText(const Step& step);

/// The line, shortened where it needs more than so many columns. ASCII without control characters,
/// whatever the database is called.
std::string ProgressLine(const ProgressView& view, std::size_t columns);

/// Shows the progress of operations on the terminal that standard error is: one line, rewritten in
/// place several times a second, no wider than the terminal is at that moment. On a terminal that
/// cannot do that (TERM=dumb) every step is a line. Whatever else is written to the terminal has to
/// be written while nothing is shown.
class Progress {
 public:
  /// Shows nothing at all unless it is wanted and standard error is a terminal. Starts a thread.
  explicit Progress(bool wanted);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Show(const std::string& database, const Step& step, std::optional<std::uint64_t> total);
  /// The line is gone when this returns.
  void Hide();

 private:
  enum class Style { kNone, kLines, kInPlace };
  using Clock = std::chrono::steady_clock;

  static Style StyleOf(bool wanted);
  void Draw();
  void Loop();

  const Style style_;
  std::mutex mutex_;  // Guards everything below, and the terminal.
  std::condition_variable changed_;
  std::optional<ProgressView> view_;
  Clock::time_point begin_;
  std::size_t drawn_columns_ = 0;  // How wide the terminal was; 0 when nothing stands there.
  bool done_ = false;
  std::thread drawer_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_PROGRESS_H_
