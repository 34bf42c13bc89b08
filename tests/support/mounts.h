#ifndef TOLM_SUPPORT_MOUNTS_H_
#define TOLM_SUPPORT_MOUNTS_H_

#include <cstdint>
#include <filesystem>
#include <utility>

namespace tolm::testing {

/// A mount made for a test, inside its private root, and taken away at the end. Permission bits
/// refuse nothing to root, so refused writes are tried on read-only mounts and full disks on small
/// ones. Mount points that are missing are made, with their parents. Everything throws
/// std::system_error on failure.
class ScopedMount {
 public:
  /// An empty file system that holds @p size_bytes (rounded up to pages; at least one).
  static ScopedMount Tmpfs(const std::filesystem::path& target, std::uint64_t size_bytes);

  /// Shows @p source, a file or a directory, at @p target as well.
  static ScopedMount Bind(const std::filesystem::path& source, const std::filesystem::path& target);

  /// Makes an existing file or directory read-only, with all below it, where it is.
  static ScopedMount ReadOnly(const std::filesystem::path& target);

  ScopedMount(ScopedMount&& other) noexcept : target_(std::exchange(other.target_, {})) {}
  ScopedMount& operator=(ScopedMount&& other) = delete;
  ~ScopedMount() { Unmount(); }

  /// This mount only: other ways to the same files keep their rights.
  void MakeReadOnly() const;
  void MakeWritable() const;

  /// Now instead of at the end. Files that are open stay usable.
  void Unmount();

 private:
  explicit ScopedMount(std::filesystem::path target) : target_(std::move(target)) {}

  std::filesystem::path target_;  // Empty: nothing to unmount.
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_MOUNTS_H_
