#ifndef TOLM_TESTS_TOOLS_STORE_H_
#define TOLM_TESTS_TOOLS_STORE_H_

#include <filesystem>
#include <memory>
#include <regex>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/wait.h"

namespace tolm::testing {

/// A store that rclone reaches, below one directory: the directory itself ("folder"), or one of
/// rclone's own servers on loopback ("webdav", "sftp") before it.
class Store {
 public:
  Store(const std::string& kind, const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    if (kind == "folder") {
      remote_ = directory;
    } else if (kind == "webdav") {
      Start({"rclone", "serve", "webdav", directory, "--addr", "127.0.0.1:0", "--dir-cache-time",
             "0s"});
      remote_ = ":webdav,url='http://127.0.0.1:" + port_ + "':";
    } else {
      Start({"rclone", "serve", "sftp", directory, "--addr", "127.0.0.1:0", "--user", "someone",
             "--pass", kPassword, "--dir-cache-time", "0s"});
      remote_ =
          ":sftp,host=127.0.0.1,port=" + port_ + ",user=someone,pass=" + Hidden(kPassword) + ":";
    }
  }

  const std::string& Remote() const { return remote_; }
  const std::string& Port() const { return port_; }

  /// As rclone wants pass words on a command line.
  static std::string Hidden(const std::string& password) {
    std::string text = RunCommand({"rclone", "obscure", password}).out;
    text.pop_back();
    return text;
  }

 private:
  static constexpr char kPassword[] = "not to be told";

  void Start(const std::vector<std::string>& command) {
    server_ = std::make_unique<RunningCommand>(command);
    const std::regex pattern("(started on http://|listening on )127\\.0\\.0\\.1:([0-9]+)");
    const bool is_there = WaitUntil([&] {
      std::smatch found;
      const std::string told = server_->Err();
      const bool is_told = std::regex_search(told, found, pattern);
      port_ = is_told ? found[2].str() : "";
      return is_told;
    });
    if (!is_there) {
      throw std::runtime_error("rclone serves nothing: " + server_->Err());
    }
  }

  std::unique_ptr<RunningCommand> server_;
  std::string port_;
  std::string remote_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_STORE_H_
