#ifndef TOLM_SRC_FILE_SYSTEM_H_
#define TOLM_SRC_FILE_SYSTEM_H_

#include <string>

/// File-system operations whose meaning must not depend on the version of the library behind them.
namespace tolm::dataupdate {

/// `prefix` and `name` with one "/" added between them when neither brings one. A name that begins
/// with "/" never replaces the prefix.
std::string JoinPath(const std::string& prefix, const std::string& name);

/// Whether the relative path names something below the directory it is joined to: it has a
/// component that is not ".", none that is "..", and no NUL.
bool StaysBelow(const std::string& relative);

/// The relative path with one "/" before each component and without empty ones and ".": "a", "//a/"
/// and "/./a" are all "/a". Links are not looked at, ".." is kept.
std::string NormalPath(const std::string& relative);

/// Whether the second of two resolved paths (without a "/" at the end, unless it is "/") is the
/// first or lies below it.
bool LiesIn(const std::string& directory, const std::string& resolved);

/// Copies a regular file (or what a link leads to) with its mode, also from one file system to
/// another, to a path that must not exist. Shares the blocks where the file system can. Throws
/// boost::filesystem::filesystem_error and leaves no half-written copy.
void CopyRegularFile(const std::string& from, const std::string& to);

/// Removes what is at the path, and, of a directory, everything below it; nothing there is no
/// failure. Links are removed, not followed. Throws boost::filesystem::filesystem_error.
void RemoveAll(const std::string& path);

/// Copies a symbolic link as a link, a directory as an empty directory and anything else as
/// CopyRegularFile does. Throws boost::filesystem::filesystem_error.
void CopyEntry(const std::string& from, const std::string& to);

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_FILE_SYSTEM_H_
