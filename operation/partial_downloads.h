#ifndef TOLM_OPERATION_PARTIAL_DOWNLOADS_H_
#define TOLM_OPERATION_PARTIAL_DOWNLOADS_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "operation/offered_package.h"

namespace tolm::operation {

/// What was received of packages whose download ended early, so that the next download goes on
/// there. It is kept beside the databases of the volume, in a directory of root's alone, in files
/// that are named by the SHA-384 of the whole package: only where a signed description says size
/// and digest is anything kept, any server that has the package may go on with it, and what is
/// wrong in the end is never used.
///
/// All of it is for the operation that has the ground of the volume (OwnGround) and its locks, in
/// the thread that runs it. Nothing here fails an operation: what goes wrong is logged, and nothing
/// is kept.

/// One download of a package into a file of the library's.
class PartialDownload {
 public:
  /// Puts what was received before of the package behind the link into the file, which is made
  /// empty where there is nothing: both are one file, so that what comes is kept whatever happens
  /// to this process. Where no signed description names the link, the package is a small one
  /// (rules::kLeastPartialBytes), it comes from a directory, or there is no ground, nothing is
  /// kept, and nothing here does anything.
  PartialDownload(const std::string& link, const std::string& file) noexcept;
  /// What was received stays, on the disk, unless Complete() was called.
  ~PartialDownload();
  PartialDownload(const PartialDownload&) = delete;
  PartialDownload& operator=(const PartialDownload&) = delete;

  bool IsKept() const noexcept { return offered_.has_value(); }
  /// Of the whole package, which is kept.
  std::uint64_t Bytes() const { return offered_->bytes; }
  /// In the file at this moment.
  std::uint64_t Received() const noexcept;
  /// Whether the file is the package, which is kept. Throws what `step` throws, which is called
  /// again and again.
  bool IsWhole(const std::function<void()>& step) const;

  /// The next attempt begins from zero. What there was is kept until that has received more, where
  /// there is room for both.
  void BeginAnew() noexcept;
  /// What was received is no part of the package, though it may have seemed complete: it goes, and
  /// the next attempt begins from zero.
  void Forget() noexcept;
  /// The attempts at one server are over: of two files the larger one is gone on with.
  void Settle() noexcept;
  /// The file is all there is to come, and is kept no longer.
  void Complete() noexcept;

 private:
  void Attach() noexcept;
  void Keep() noexcept;

  const std::string file_;
  std::optional<OfferedPackage> offered_;
  bool is_linked_ = false;  ///< The file and the kept one are one.
  bool is_complete_ = false;
};

/// How much of the package behind the link could be gone on with.
std::uint64_t KeptBytesOf(const std::string& link) noexcept;

/// Removes all that is kept of other packages than the one behind the link.
void RemoveOtherPartials(const std::string& link) noexcept;
/// The same of all, where that is little room for what unpacking that package takes.
void MakeRoomToUnpack(const std::string& package) noexcept;

/// Removes what must not stay when an operation begins: what the present description does not name,
/// what has not grown for rules::kPartialSeconds, the oldest beyond rules::kMostPartials, what is
/// no such file, and everything where the volume has no room left.
void TidyPartials() noexcept;

/// Removes everything that is kept on the volume, which need not be that of an operation.
void RemovePartialsOf(const std::string& volume) noexcept;

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_PARTIAL_DOWNLOADS_H_
