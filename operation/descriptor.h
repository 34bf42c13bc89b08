#ifndef TOLM_OPERATION_DESCRIPTOR_H_
#define TOLM_OPERATION_DESCRIPTOR_H_

#include <cstdint>
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

  std::uint64_t Size() const;
  /// The bytes from `offset` on; fewer than `size` at the end of the file.
  std::string Read(std::uint64_t offset, std::size_t size) const;
  /// All of the text, in one call of the system's where it takes all.
  void Write(const std::string& text) const;

 private:
  void Check(long result, const char* what) const;

  std::string path_;
  int fd_;
};

/// Puts a new file with the text in the file's place: whatever happens, the old or the new one is
/// there, whole. Missing parent directories are made. Throws std::system_error. Not for two at
/// once: the new file is written beside it under a fixed name.
void ReplaceFile(const std::string& path, const std::string& text);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DESCRIPTOR_H_
