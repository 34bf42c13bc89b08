#include <unistd.h>

#include <iostream>

#include "base/utf8.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

constexpr std::chrono::milliseconds kBetweenLines(100);

std::string StepText(const publish::Step& step) {
  std::string text = step.what;
  if (step.total > 0) {
    return text + ' ' + std::to_string(step.done) + " of " + std::to_string(step.total);
  }
  if (step.done >> 20 > 0) {
    text += ' ' + std::to_string(step.done >> 20) + " MiB";
  }
  return text;
}

}  // namespace

void PrintError(const std::string& text) {
  std::cerr << "tolmdbpub: " << base::EscapeControls(text) << '\n';
}

void PrintNote(const std::string& text) {
  PrintError("note: " + text);
}

void AddRepositoryOption(CommandSyntax command, std::string& repository) {
  command.AddOption("REPO", repository, "Directory of the repository").Required();
}

ProgressLine::ProgressLine() : on_terminal_(::isatty(STDERR_FILENO) == 1) {}

ProgressLine::~ProgressLine() {
  Clear();
}

void ProgressLine::Show(const publish::Step& step) {
  const auto now = std::chrono::steady_clock::now();
  const bool same_step = text_.compare(0, std::string(step.what).size(), step.what) == 0;
  if (!on_terminal_ || (same_step && now - shown_at_ < kBetweenLines)) {
    return;
  }
  text_ = StepText(step);
  shown_at_ = now;
  std::cerr << "\r\033[K" << text_ << std::flush;
}

void ProgressLine::Note(const std::string& text) {
  Clear();
  PrintNote(text);
}

void ProgressLine::Clear() {
  if (!text_.empty()) {
    std::cerr << "\r\033[K";
    text_.clear();
  }
}

}  // namespace tolm::tool
