#include "publish/remote.h"

#include <fcntl.h>
#include <json/value.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <set>
#include <sstream>

#include "base/descriptor.h"
#include "package/error.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/memory_file.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kKeyDigits = 32;
constexpr char kSame = '=';
constexpr char kAgain[] = "Failed to ";
// Kinds of digests that stores have and that rclone makes of local files.
const std::set<std::string> kComparable = {"md5",     "sha1",    "sha256", "crc32",   "whirlpool",
                                           "dropbox", "hidrive", "mailru", "quickxor"};
// Before release 1.63 rclone asks WebDAV servers not to move over what is there, whatever it is
// told; of two headers of one name that it sends, servers take the first.
const std::vector<std::string> kMoveOverOnWebDav = {"--webdav-headers", "*OVERWRITE,T"};

std::string Normal(std::string text) {
  if (text.empty() || text.front() == '-') {
    throw Error('"' + text + "\" is no remote of rclone");
  }
  while (text.size() > 1 && text.back() == '/') {
    text.pop_back();
  }
  return text;
}

std::vector<std::string> HeadersOf(Served served) {
  switch (served) {
    case Served::kPackage:
      return {"--header-upload", "Cache-Control: public, max-age=31536000, immutable",
              "--header-upload", "Content-Type: application/octet-stream"};
    case Served::kDescription:
      return {"--header-upload", "Cache-Control: public, max-age=60", "--header-upload",
              "Content-Type: application/json"};
    case Served::kMark:
      break;
  }
  return {"--header-upload", "Cache-Control: no-store", "--header-upload",
          "Content-Type: application/json"};
}

std::vector<std::string> Joined(std::vector<std::string> first,
                                const std::vector<std::string>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::optional<std::string> ReadBegin(const std::string& path, std::uint64_t most_bytes) {
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.IsOpen() && (errno == ENOENT || errno == ENOTDIR)) {
    return std::nullopt;
  }
  if (!file.IsOpen()) {
    throw package::SystemError(package::Code::kRead, path, errno);
  }
  std::string text;
  std::array<char, 4096> piece{};
  while (text.size() < most_bytes) {
    const std::int64_t count = base::ReadAt(file.Get(), piece.data(), piece.size(), text.size());
    if (count < 0) {
      throw package::SystemError(package::Code::kRead, path, errno);
    }
    if (count == 0) {
      break;
    }
    text.append(piece.data(), static_cast<std::size_t>(count));
  }
  text.resize(static_cast<std::size_t>(std::min<std::uint64_t>(text.size(), most_bytes)));
  return text;
}

}  // namespace

Remote::Remote(const std::string& text) : remote_(Normal(text)), text_(TakeApart(remote_)) {
  const MemoryFile output("rclone");
  const RcloneEnd end = Run({"backend", "features", remote_}, output.Get());
  if (end.exit_status != 0) {
    Fail("cannot be used", end);
  }
  const Json::Value value = ParseJson(output.Content(), "rclone");
  const JsonObject all(value, "rclone");
  const JsonObject features = all.Object("Features");
  is_folder_ = features.Flag("IsLocal");
  replaces_objects_ = features.Flag("BucketBased");
  can_move_ = features.Flag("Move");
  if (is_folder_) {
    root_ = all.Text("Root");
    if (fs::exists(root_) && !fs::is_directory(root_)) {
      throw Error(Name() + ": not a directory");
    }
  }
  if (all.Has("Hashes")) {
    all.ForEachElement("Hashes", [this](const Json::Value& hash, const std::string&) {
      has_digests_ = has_digests_ || (hash.isString() && kComparable.count(hash.asString()) != 0);
    });
  }
}

std::string Remote::Key() const {
  return Sha384OfText(is_folder_ ? root_ : remote_).substr(0, kKeyDigits);
}

RcloneEnd Remote::Run(std::vector<std::string> arguments, int output,
                      const Transferred& transferred) const {
  return RunRclone({std::move(arguments), output, lock_, transferred});
}

void Remote::Fail(const std::string& task, const RcloneEnd& end) const {
  std::string words;
  for (const std::string& error : end.errors) {
    // Its last line says again what those before have said.
    if (words.empty() || error.compare(0, sizeof kAgain - 1, kAgain) != 0) {
      words += (words.empty() ? "" : "; ") + error;
    }
  }
  if (words.empty()) {
    words = "status " + std::to_string(end.exit_status);
  }
  throw Error(Name() + ": " + task + ": rclone: " + WithoutSecrets(words, text_));
}

void Remote::MustRun(const std::string& task, const std::vector<std::string>& arguments,
                     const Transferred& transferred) const {
  const RcloneEnd end = Run(arguments, -1, transferred);
  if (end.exit_status != 0) {
    Fail(task, end);
  }
}

std::string Remote::Path(const std::string& relative) const {
  return RemotePath(remote_, relative);
}

std::string Remote::ListFile(const std::vector<std::string>& paths) const {
  if (paths.empty()) {  // Which rclone would take for everything.
    throw Error(Name() + ": no files are named");
  }
  std::string text;
  for (const std::string& path : paths) {
    text += path + '\n';
  }
  const std::string file = work_ + "/files";
  ReplaceFile(file, text, file + ".new");
  return file;
}

std::map<std::string, std::uint64_t> Remote::List() const {
  const MemoryFile output("rclone");
  const RcloneEnd end = Run({"lsjson", "-R", "--files-only", "--no-modtime", "--no-mimetype",
                             remote_, "--include", "/packages/**", "--include", "/packages-*/**",
                             "--include", "/database_info/**", "--include", "/.tolmdbpub-*"},
                            output.Get());
  std::map<std::string, std::uint64_t> sizes;
  if (end.exit_status == kRcloneNoFolder) {
    return sizes;
  }
  if (end.exit_status != 0) {
    Fail("cannot be listed", end);
  }
  const Json::Value value = ParseJson(output.Content(), "rclone");
  if (!value.isArray()) {
    throw Error(Name() + ": rclone does not list it");
  }
  for (const Json::Value& file : value) {
    const JsonObject object(file, "rclone");
    const std::int64_t size = object.Number("Size");
    // One that the store does not tell is none that a file of ours has.
    sizes[object.Text("Path")] = size < 0 ? UINT64_MAX : static_cast<std::uint64_t>(size);
  }
  return sizes;
}

std::optional<std::string> Remote::Read(const std::string& path, std::uint64_t most_bytes) const {
  if (is_folder_) {
    return ReadBegin(root_ + '/' + path, most_bytes);
  }
  const MemoryFile output("rclone");
  const RcloneEnd end =
      Run({"cat", Path(path), "--count", std::to_string(most_bytes)}, output.Get());
  if (end.exit_status == kRcloneNoFolder || end.exit_status == kRcloneNoFile) {
    return std::nullopt;
  }
  if (end.exit_status != 0) {
    Fail(path + " cannot be read", end);
  }
  return output.Content();
}

void Remote::ReadInto(const std::string& path, int output) const {
  const RcloneEnd end = Run({"cat", Path(path)}, output);
  if (end.exit_status != 0) {
    Fail(path + " cannot be read", end);
  }
}

void Remote::Upload(const std::string& directory, const std::vector<std::string>& paths,
                    const Transferred& transferred) const {
  MustRun("packages cannot be uploaded",
          Joined({"copy", directory, remote_, "--files-from-raw", ListFile(paths), "--ignore-times",
                  "--no-traverse"},
                 HeadersOf(Served::kPackage)),
          transferred);
}

// The report, a line for each file; see "rclone check --help".
std::string Remote::Compare(const std::vector<std::string>& arguments, bool by_reading,
                            const Transferred& transferred, RcloneEnd& end) const {
  const MemoryFile output("rclone");
  const std::vector<std::string> how =
      by_reading ? std::vector<std::string>{"--download"} : std::vector<std::string>{};
  end = Run(Joined(arguments, how), output.Get(), transferred);
  return output.Content();
}

std::vector<std::string> Remote::Differing(const std::string& directory,
                                           const std::vector<std::string>& paths,
                                           const Transferred& transferred) const {
  const std::vector<std::string> arguments = {
      "check", directory,          remote_,        "--one-way", "--combined",
      "-",     "--files-from-raw", ListFile(paths)};
  RcloneEnd end;
  std::string report = Compare(arguments, !has_digests_, transferred, end);
  if (has_digests_ && end.has_uncompared) {
    report = Compare(arguments, true, transferred, end);
  }
  std::set<std::string> told;
  std::set<std::string> same;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    if (line.size() > 2) {
      told.insert(line.substr(2));
      if (line.front() == kSame) {
        same.insert(line.substr(2));
      }
    }
  }
  // It has failed before it came to all of them.
  if (end.exit_status != 0 && end.exit_status != kRcloneNoFolder && told.size() < paths.size()) {
    Fail("packages cannot be compared", end);
  }
  std::vector<std::string> differing;
  std::copy_if(paths.begin(), paths.end(), std::back_inserter(differing),
               [&same](const std::string& path) { return same.count(path) == 0; });
  return differing;
}

Replacement Remote::Replace(const std::string& path, const std::string& aside,
                            const std::string& text, Served served) const {
  if (is_folder_) {
    MakeDirectories(fs::path(root_ + '/' + path).parent_path());
    ReplaceFile(root_ + '/' + path, text, root_ + '/' + aside);
    return Replacement::kAtOnce;
  }
  const std::string file = work_ + '/' + fs::path(aside).filename().string();
  ReplaceFile(file, text, file + ".new");
  const bool in_place = replaces_objects_ || !can_move_;
  MustRun(
      path + " cannot be uploaded",
      Joined({"copyto", file, Path(in_place ? path : aside), "--ignore-times"}, HeadersOf(served)));
  RemoveFile(file);
  return in_place ? Replacement::kAtOnce : MoveOver(aside, path);
}

// A plain move first removes what is in the way. Without a look at what is there, the store is
// asked to put the one into the other's place, which not every one does.
Replacement Remote::MoveOver(const std::string& aside, const std::string& path) const {
  const std::vector<std::string> move = {"moveto", Path(aside), Path(path)};
  const std::vector<std::string> over =
      Joined(move, {"--no-check-dest", "--retries", "1", "--low-level-retries", "1"});
  if (Run(over).exit_status == 0 || Run(Joined(over, kMoveOverOnWebDav)).exit_status == 0) {
    return Replacement::kAtOnce;
  }
  MustRun(path + " cannot be replaced", move);
  return Replacement::kWithGap;
}

void Remote::Remove(const std::vector<std::string>& paths) const {
  MustRun("files cannot be removed", {"delete", remote_, "--files-from-raw", ListFile(paths)});
}

void Remote::Sync() const {
  if (!is_folder_) {
    return;
  }
  const base::Descriptor root(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.IsOpen() || ::syncfs(root.Get()) != 0) {
    throw package::WriteError(root_, errno);
  }
}

}  // namespace tolm::publish
