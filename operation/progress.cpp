#include "operation/progress.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "base/human_text.h"
#include "base/paths.h"
#include "operation/description_reader.h"
#include "operation/interrupt.h"

namespace tolm::operation {
namespace {

constexpr std::chrono::milliseconds kInterval{100};
// Before that a rate is only noise.
constexpr std::chrono::milliseconds kRateFrom{500};
constexpr std::size_t kUsualColumns = 80;
constexpr char kEraseLine[] = "\r\033[K";
// A terminal that has become narrower may have broken the line in two. The cursor is at its
// beginning, and nothing is below. Not always this one: some terminals keep what it erases.
constexpr char kEraseBroken[] = "\r\033[J";

void Put(const std::string& text) {
  // A terminal that has gone away is no reason to fail.
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
}

std::size_t Columns() {
  winsize size{};
  const bool is_known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return is_known ? size.ws_col : kUsualColumns;
}

std::string AmountText(const ProgressView& view) {
  if (!view.total) {
    return base::HumanSize(view.bytes);
  }
  const base::SizeUnit unit = base::UnitFor(*view.total);
  return base::InUnit(view.bytes, unit) + " of " + base::InUnit(*view.total, unit) + ' ' +
         unit.name;
}

std::string PercentText(const ProgressView& view) {
  if (!view.total || *view.total == 0) {
    return "";
  }
  const auto percent = static_cast<std::uint64_t>(100.0 * static_cast<double>(view.bytes) /
                                                  static_cast<double>(*view.total));
  return std::to_string(std::min<std::uint64_t>(percent, 100)) + '%';
}

std::string RateText(const ProgressView& view) {
  if (view.passed < kRateFrom) {
    return "";
  }
  const double seconds = static_cast<double>(view.passed.count()) / 1000;
  const std::uint64_t received =
      view.bytes > view.bytes_before ? view.bytes - view.bytes_before : 0;
  return base::HumanSize(static_cast<std::uint64_t>(static_cast<double>(received) / seconds)) +
         "/s";
}

// Where a download goes on.
std::string FromText(const ProgressView& view) {
  return view.bytes_before == 0 ? "" : " from " + base::HumanSize(view.bytes_before);
}

std::string Joined(const std::vector<std::string>& parts) {
  std::string line;
  for (const std::string& part : parts) {
    if (!part.empty()) {
      line += (line.empty() ? "" : "  ") + part;
    }
  }
  return line;
}

std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return text;
}

// From the longest to the shortest.
std::vector<std::string> Candidates(const ProgressView& view) {
  const std::string what =
      StepText(view.step) + FromText(view) + (view.ending ? ", then ending" : "");
  const std::string name = Printable(view.database);
  const std::string head = name + ": " + what;
  if (view.step.kind != StepKind::kDownload) {
    const std::string seconds = std::to_string(view.passed.count() / 1000) + " s";
    return {Joined({head, seconds}), head, what};
  }
  const std::string percent = PercentText(view);
  const std::string amount = AmountText(view);
  const std::string rate = RateText(view);
  return {Joined({head, percent, amount, rate}),
          Joined({name, percent, amount, rate}),
          Joined({head, percent, rate}),
          Joined({head, percent}),
          Joined({what, percent}),
          what};
}

std::uint64_t SizeOf(const std::string& file) {
  struct stat status;
  return stat(file.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

bool IsDelta(const Step& step) {
  const std::string name = std::filesystem::path(step.file).filename();
  const std::size_t tag = name.rfind("_d");
  return tag != std::string::npos && tag + 2 < name.size() &&
         name.find_first_not_of("0123456789", tag + 2) == std::string::npos;
}

std::string StepText(const Step& step) {
  switch (step.kind) {
    case StepKind::kWait:
      return "waiting for another operation";
    case StepKind::kDownload:
      if (IsPlaceOfDescription(step.file)) {
        return "fetching the description";
      }
      return IsDelta(step) ? "downloading a delta" : "downloading";
    case StepKind::kVerify:
      return "verifying";
    case StepKind::kUnpack:
      return "unpacking";
    case StepKind::kPrepare:
      return IsDelta(step) ? "patching" : "preparing";
    case StepKind::kPatch:
      return "patching";
    case StepKind::kPreHooks:
    case StepKind::kPostHooks:
      return "running hooks";
    case StepKind::kInstall:
      return "installing";
  }
  return "";
}

std::string ProgressLine(const ProgressView& view, std::size_t columns) {
  const std::vector<std::string> candidates = Candidates(view);
  for (const std::string& line : candidates) {
    if (line.size() <= columns) {
      return line;
    }
  }
  return candidates.back().substr(0, columns);
}

Progress::Progress(bool wanted) : style_(StyleOf(wanted)) {
  if (style_ == Style::kInPlace) {
    drawer_ = std::thread(&Progress::Loop, this);
  }
}

Progress::~Progress() {
  Hide();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
  }
  changed_.notify_all();
  if (drawer_.joinable()) {
    drawer_.join();
  }
}

Progress::Style Progress::StyleOf(bool wanted) {
  if (!wanted || isatty(STDERR_FILENO) == 0) {
    return Style::kNone;
  }
  const char* terminal = std::getenv("TERM");
  const bool can_erase = terminal != nullptr && std::string(terminal) != "dumb";
  return can_erase ? Style::kInPlace : Style::kLines;
}

void Progress::Show(const std::string& database, const Step& step,
                    std::optional<std::uint64_t> total) {
  if (style_ == Style::kNone) {
    return;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  const bool says_the_same = view_ && StepText(view_->step) == StepText(step);
  const bool goes_on = step.kind == StepKind::kDownload && !IsPlaceOfDescription(step.file);
  const std::uint64_t before = goes_on ? SizeOf(step.file) : 0;
  view_ = ProgressView{database, step, {}, 0, total, false, before};
  begin_ = Clock::now();
  if (style_ == Style::kLines && !says_the_same) {
    Put(Printable(database) + ": " + StepText(step) + '\n');
  }
  changed_.notify_all();
}

void Progress::Hide() {
  const std::lock_guard<std::mutex> lock(mutex_);
  view_.reset();
  if (drawn_columns_ != 0) {
    Put(Columns() < drawn_columns_ ? kEraseBroken : kEraseLine);
    drawn_columns_ = 0;
  }
}

void Progress::Draw() {
  view_->passed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin_);
  if (view_->step.kind == StepKind::kDownload) {
    view_->bytes = SizeOf(view_->step.file);
  }
  view_->ending = Interrupt::Received() != 0;
  // The last column stays free: a line that fills it has moved the cursor on some terminals.
  const std::size_t columns = Columns();
  const std::string erase = columns < drawn_columns_ ? kEraseBroken : kEraseLine;
  Put(erase + ProgressLine(*view_, columns - 1) + '\r');
  drawn_columns_ = columns;
}

void Progress::Loop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!done_) {
    changed_.wait(lock, [this] { return done_ || view_; });
    // What is over at once is not shown.
    changed_.wait_for(lock, kInterval, [this] { return done_; });
    if (!done_ && view_) {
      Draw();
    }
  }
}

}  // namespace tolm::operation
