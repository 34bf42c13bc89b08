#ifndef TOLM_OPERATOR_DESCRIPTOR_H_
#define TOLM_OPERATOR_DESCRIPTOR_H_

#include <string>

namespace tolm::operation {

/// An open file, closed with the object. Every failure is a std::system_error that names the path.
class Descriptor {
 public:
  /// Flags as open(2) has them; a new file gets mode 0644, less the umask.
  Descriptor(const std::string& path, int flags);
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  /// Wait until the file, or everything on its file system, is on the disk.
  void Sync() const;
  void SyncFileSystem() const;

 private:
  void Check(int result, const char* what) const;

  std::string path_;
  int fd_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATOR_DESCRIPTOR_H_
