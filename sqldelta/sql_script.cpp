#include "sqldelta/sql_script.h"

#include <cerrno>
#include <stdexcept>

#include "sqldelta/error.h"

namespace tolm::sqldelta {

SqlScript::SqlScript(const std::string& path, SqliteConnection& scratch)
    : path_(path), out_(path, std::ios::binary | std::ios::trunc), scratch_(scratch) {
  if (!out_) {
    throw FileError(FileError::Action::kWrite, path + ": cannot be created", errno);
  }
}

void SqlScript::Line(const std::string& sql) {
  Write(sql);
  scratch_.Execute(sql);
}

void SqlScript::EnforceChecks(bool by_devices, bool here) {
  const auto pragma = [](bool enforced) {
    return std::string("PRAGMA ignore_check_constraints=") + (enforced ? "OFF;" : "ON;");
  };
  if (by_devices != devices_check_) {
    Write(pragma(by_devices));
    devices_check_ = by_devices;
  }
  if (here != scratch_checks_) {
    scratch_.Execute(pragma(here));
    scratch_checks_ = here;
  }
}

void SqlScript::Defer(const std::string& sql) {
  if (deferred_from_ < 0) {
    deferred_from_ = out_.tellp();
  }
  Write(sql);
}

void SqlScript::ExecuteDeferred() {
  if (deferred_from_ < 0) {
    return;
  }
  if (!out_.flush()) {
    throw FileError(FileError::Action::kWrite, path_ + ": cannot be written", errno);
  }
  std::ifstream in(path_, std::ios::binary);
  in.seekg(deferred_from_);
  for (std::string line; std::getline(in, line);) {
    scratch_.Execute(line);
  }
  deferred_from_ = -1;
}

void SqlScript::Guard(const std::string& select) {
  // SQL has no statement that fails on demand; 1<<63, the smallest integer, has no absolute value.
  Line("SELECT abs(((" + select + ") IS NOT " + Literal(scratch_.Single(select)) + ")<<63);");
}

void SqlScript::Close() {
  out_.close();
  if (!out_) {
    throw FileError(FileError::Action::kWrite, path_ + ": not written completely", errno);
  }
}

void SqlScript::Write(const std::string& sql) {
  if (sql.find('\n') != std::string::npos || sql.find('\0') != std::string::npos) {
    throw std::runtime_error("a statement does not fit on one line");
  }
  if (sql.size() > kMaxLineBytes) {
    throw std::runtime_error("a row is too long for a statement");
  }
  if (!(out_ << sql << '\n')) {
    throw FileError(FileError::Action::kWrite, path_ + ": cannot be written", errno);
  }
}

void SqlRows::Add(const std::string& row) {
  if (!line_.empty() && line_.size() + row.size() > SqlScript::kLineBytes) {
    Finish();
  }
  line_ += (line_.empty() ? form_.beginning : form_.separator) + row;
}

void SqlRows::Finish() {
  if (line_.empty()) {
    return;
  }
  line_ += form_.end + ";";
  if (deferred_) {
    script_.Defer(line_);
  } else {
    script_.Line(line_);
  }
  line_.clear();
}

}  // namespace tolm::sqldelta
