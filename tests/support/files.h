#ifndef TOLM_SUPPORT_FILES_H_
#define TOLM_SUPPORT_FILES_H_

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tolm::testing {

/// All of these throw std::runtime_error or std::filesystem::filesystem_error on failure.

/// Writes the file anew, making its parent directories.
void WriteFile(const std::filesystem::path& path, const std::string& content);

/// The whole file.
std::string ReadFile(const std::filesystem::path& path);

/// Puts another text in place of the first @p from in the file, which must hold it.
void ReplaceInFile(const std::filesystem::path& path, const std::string& from,
                   const std::string& to);

/// Makes the byte at this place of the file another one.
void ChangeByte(const std::filesystem::path& path, std::size_t at);

/// Relative path to content. A path that ends in "/" is a directory, one of the form "name ->
/// target" a symbolic link; both have an empty content.
using Tree = std::map<std::string, std::string>;

/// Makes what the tree says below @p root, which need not exist.
void MakeTree(const std::filesystem::path& root, const Tree& tree);

/// Everything below @p root as a Tree, links not followed; other kinds of files than the three are
/// left out.
Tree ReadTree(const std::filesystem::path& root);

/// The keys of ReadTree(), sorted, without reading any file.
std::vector<std::string> ListTree(const std::filesystem::path& root);

/// SHA-384 of the file, 96 lower-case hexadecimal digits.
std::string Sha384Hex(const std::filesystem::path& path);

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_FILES_H_
