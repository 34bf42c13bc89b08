#ifndef TOLM_SUPPORT_FAKE_PLATFORM_H_
#define TOLM_SUPPORT_FAKE_PLATFORM_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace tolm::testing {

/// In place of the platform's program execution, directory creation, hardware identifier, signed
/// archives, plug-ins and volumes: a test program that uses this class has functions of its own for
/// them, for the library under test as well. While an object lives they do what it says and write
/// down every call; otherwise, and for everything that is not set, the real platform answers.
///
/// A call that breaks the platform's contract (wrong arguments, a handle that is not alive) fails
/// the test, and so does a handle that still lives at the end. One object at a time, one thread.
class FakePlatform {
 public:
  FakePlatform();
  ~FakePlatform();
  FakePlatform(const FakePlatform&) = delete;
  FakePlatform& operator=(const FakePlatform&) = delete;

  /// What running the program does: its arguments without the program, and its exit status.
  using Program = std::function<int(const std::vector<std::string>& arguments)>;
  void SetProgram(const std::string& path, Program program);

  /// Makes the URL a package that unpacks to the tree. Every other URL fails like wget does: with
  /// an empty output file and exit status 8.
  void OfferPackage(const std::string& url, const Tree& tree);
  /// Makes the URL a file with the content, which is no package.
  void OfferFile(const std::string& url, const std::string& content);

  /// Called before a download is answered; may throw.
  std::function<void(const std::string& url, const std::string& output)> before_download;
  /// Called when a package has been unpacked.
  std::function<void(const std::string& destination)> after_extract;

  /// Directories whose creation fails.
  std::set<std::string> refused_directories;

  bool archive_init_fails = false;
  std::uint32_t archive_open_error = 0;     ///< Not 0: opening fails with this code.
  std::uint32_t archive_extract_error = 0;  ///< Not 0: unpacking fails with it, half-way.

  bool hwid_init_fails = false;
  bool hwid_str_fails = false;
  std::string hwid = "0123456789abcdef0123";  ///< As many characters as are asked for are given.

  int plugin_init_result = 0;
  bool plugin_init_gives_handle = true;
  int plugin_set_result = 0;
  /// The result of running the plug-ins for an action.
  std::function<int(int action)> plugin_action;
  std::function<void()> plugin_exit;

  struct Volume {
    std::string mount_path;
    std::uint64_t available = 0;
    unsigned int flags = 1;
    int is_local = 1;
    int is_healthy = 1;
    bool allowed = true;  ///< For services.
  };
  /// The mounted volumes, in this order. Without one, an enumeration fails.
  std::vector<Volume> volumes;
  int platform_error = 0;  ///< Not 0: the last platform error.

  /// The calls so far, in order: "mkdir <path>", "download <url> to <path>", "run <program>
  /// <arguments>", "open <package>", "extract to <directory>", "plugin init <module> <path>",
  /// "plugin set <key>=<value>", "plugin action <number>", "plugin exit", "list volumes", "describe
  /// <path>", "policy of <path>", "release volumes".
  std::vector<std::string> Calls() const;

  /// The calls and what was sent to the system log meanwhile (debug lines left out, and the places
  /// of the others) in one order. A log line reads "<severity> <source>: <text>".
  std::vector<std::string> Story() const;

  // For the functions that stand in place of the platform's.
  static FakePlatform* Active();
  void Record(const std::string& call);
  const Program* FindProgram(const std::string& path) const;
  int Download(const std::vector<std::string>& arguments);
  const Tree* FindPackage(const std::string& content) const;
  std::set<void*> archives;
  std::set<void*> hwids;
  std::map<void*, int> plugin_exits;  ///< By handle: how often it was released.
  std::set<void*> volume_lists;
  const Volume* FindVolume(const std::string& mount_path) const;

 private:
  struct Call {
    std::string text;
    std::size_t log_lines_before;
  };

  std::map<std::string, Program> programs_;
  std::map<std::string, std::string> files_;  // By URL.
  std::map<std::string, Tree> packages_;      // By the content of the package file.
  std::vector<Call> calls_;
  std::size_t log_lines_at_start_;
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_FAKE_PLATFORM_H_
