#include "tests/support/files.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

const char kArrow[] = " -> ";

std::ifstream OpenForReading(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + path.string());
  }
  return file;
}

// The entry's key in a Tree; empty for a kind of file that a Tree does not know.
std::string TreeKey(const fs::directory_entry& entry, const fs::path& root) {
  const std::string name = entry.path().lexically_relative(root).string();
  if (entry.is_symlink()) {
    return name + kArrow + fs::read_symlink(entry.path()).string();
  }
  if (entry.is_directory()) {
    return name + "/";
  }
  return entry.is_regular_file() ? name : "";
}

}  // namespace

void WriteFile(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

std::string ReadFile(const fs::path& path) {
  std::ifstream file = OpenForReading(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void ReplaceInFile(const fs::path& path, const std::string& from, const std::string& to) {
  std::string text = ReadFile(path);
  const std::size_t at = text.find(from);
  if (at == std::string::npos) {
    throw std::runtime_error("no \"" + from + "\" in " + path.string());
  }
  WriteFile(path, text.replace(at, from.size(), to));
}

void ChangeByte(const fs::path& path, std::size_t at) {
  std::string bytes = ReadFile(path);
  if (at >= bytes.size()) {
    throw std::runtime_error(path.string() + " has no byte " + std::to_string(at));
  }
  bytes[at] = static_cast<char>(bytes[at] ^ 1);
  WriteFile(path, bytes);
}

void MakeTree(const fs::path& root, const Tree& tree) {
  fs::create_directories(root);
  for (const auto& [name, content] : tree) {
    const std::size_t arrow = name.find(kArrow);
    if (arrow != std::string::npos) {
      const fs::path link = root / name.substr(0, arrow);
      fs::create_directories(link.parent_path());
      fs::create_symlink(name.substr(arrow + sizeof kArrow - 1), link);
    } else if (!name.empty() && name.back() == '/') {
      fs::create_directories(root / name.substr(0, name.size() - 1));
    } else {
      WriteFile(root / name, content);
    }
  }
}

Tree ReadTree(const fs::path& root) {
  Tree tree;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    const std::string key = TreeKey(entry, root);
    if (!key.empty()) {
      tree[key] = entry.is_symlink() || entry.is_directory() ? "" : ReadFile(entry.path());
    }
  }
  return tree;
}

std::vector<std::string> ListTree(const fs::path& root) {
  std::vector<std::string> keys;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    const std::string key = TreeKey(entry, root);
    if (!key.empty()) {
      keys.push_back(key);
    }
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

std::string Sha384Hex(const fs::path& path) {
  std::ifstream file = OpenForReading(path);
  const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
  bool good = context != nullptr && EVP_DigestInit_ex(context.get(), EVP_sha384(), nullptr) == 1;
  std::array<char, 65536> buffer;
  while (good && (file.read(buffer.data(), buffer.size()), file.gcount() > 0)) {
    good = EVP_DigestUpdate(context.get(), buffer.data(),
                            static_cast<std::size_t>(file.gcount())) == 1;
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned size = 0;
  if (!good || file.bad() || EVP_DigestFinal_ex(context.get(), digest.data(), &size) != 1) {
    throw std::runtime_error("cannot digest " + path.string());
  }
  std::string hex;
  for (unsigned i = 0; i < size; ++i) {
    hex += "0123456789abcdef"[digest[i] >> 4];
    hex += "0123456789abcdef"[digest[i] & 15];
  }
  return hex;
}

}  // namespace tolm::testing
