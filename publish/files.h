#ifndef TOLM_PUBLISH_FILES_H_
#define TOLM_PUBLISH_FILES_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tolm::publish {

/// What survives a power failure is written by these alone. All throw package::Error that names the
/// path.

/// Gives the file this content as a whole: whoever opens it sees the old content or the new one,
/// after a power failure too. The content is written to @p staging first, which is on the same file
/// system and may exist.
void ReplaceFile(const std::string& path, const std::string& content, const std::string& staging,
                 mode_t mode = 0644);

/// Moves a file that is synced already to its place on the same file system, replacing what is
/// there, and syncs both directories.
void MoveFile(const std::string& from, const std::string& to);

/// Makes the directory with all missing parents, each synced into its own.
void MakeDirectories(const std::string& path);

void SyncDirectory(const std::string& path);

/// Removes a file and syncs its directory; a missing file is no failure.
void RemoveFile(const std::string& path);

/// The names in the directory, sorted.
std::vector<std::string> NamesIn(const std::string& path);

/// Removes everything below the directory, or makes the directory when it is missing.
void EmptyDirectory(const std::string& path);

/// Removes the path and everything below it; a missing one is no failure.
void RemoveTree(const std::string& path);

struct FileFacts {
  std::uint64_t size_bytes = 0;
  std::string sha384;  ///< 96 lower-case hexadecimal digits
};

/// Reads the file once, in constant memory.
FileFacts MeasureFile(const std::string& path);

/// The whole file.
std::string ReadWholeFile(const std::string& path);

std::string Sha384OfText(const std::string& text);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_FILES_H_
