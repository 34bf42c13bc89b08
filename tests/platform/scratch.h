#ifndef TOLM_TESTS_PLATFORM_SCRATCH_H_
#define TOLM_TESTS_PLATFORM_SCRATCH_H_

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::testing {

// A new directory, with short names for what is in it.
class ScratchDirectory : public TemporaryDirectory {
 public:
  std::string operator/(const std::string& name) const { return (Path() / name).string(); }
};

inline void WriteScript(const std::string& path, const std::string& body) {
  WriteFile(path, "#!/bin/sh\n" + body + "\n");
  if (chmod(path.c_str(), 0755) != 0)
    throw std::runtime_error("cannot make executable " + path);
}

inline std::vector<std::string> ReadLines(const std::string& path) {
  std::istringstream text(ReadFile(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);)
    lines.push_back(line);
  return lines;
}

// Everything that this process has sent to the system log.
inline std::vector<std::string> LogTexts() {
  std::vector<std::string> texts;
  for (const SyslogLine& line : SyslogCapture::Lines())
    texts.push_back(line.text);
  return texts;
}

// A named pipe through which processes tell a test where they are. Every process that has it open
// for writing keeps WaitForEnd waiting, so the end also proves that none of them lives any more.
class Fifo {
 public:
  explicit Fifo(const std::string& path) : path_(path) {
    if (mkfifo(path.c_str(), 0600) != 0)
      throw std::runtime_error("cannot make " + path);
  }

  // Waits for a writer and then for one line. An empty text when all writers went without one.
  std::string ReadLine() {
    if (!reader_)
      reader_ = UniqueDescriptor(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    std::string line;
    for (char c = 0; read(reader_.Get(), &c, 1) == 1 && c != '\n';)
      line.push_back(c);
    return line;
  }

  void WaitForEnd() {
    while (!ReadLine().empty()) {
    }
  }

 private:
  std::string path_;
  UniqueDescriptor reader_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PLATFORM_SCRATCH_H_
