#include "report/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <stdexcept>

#include "base/file.h"

namespace tolm::report {
namespace {

// Not so when somebody has put another one there meanwhile.
bool IsNamed(const base::File& file, const std::string& path) {
  struct stat opened;
  struct stat named;
  return fstat(file.Get(), &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace

void ReplaceOutput(const std::string& path, const std::string& text, std::optional<mode_t> mode) {
  struct stat status;
  if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    throw std::runtime_error(path + " is no regular file, and stays as it is");
  }
  base::Replacement replacement(path);
  // What is left of a run that was killed, or what somebody else has laid there.
  std::remove(replacement.staging().c_str());
  base::File file(replacement.staging(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW,
                  mode ? 0600 : 0644);
  file.Write(text);
  if (mode) {
    file.SetMode(*mode);
  }
  if (!IsNamed(file, replacement.staging())) {
    throw std::runtime_error("another program writes " + path + " at the same time");
  }
  file.Close();
  replacement.PutInPlace();
}

}  // namespace tolm::report
