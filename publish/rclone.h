#ifndef TOLM_PUBLISH_RCLONE_H_
#define TOLM_PUBLISH_RCLONE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tolm::publish {

/// An rclone remote as it stands on a command line ("name:path", ":type,key=value:path", a folder),
/// taken apart for messages: what follows the type or the name up to its colon may hold secrets.
struct RemoteText {
  std::string shown;                 ///< without that
  std::vector<std::string> secrets;  ///< values that no message may repeat
};
RemoteText TakeApart(const std::string& remote);

/// @p text without the secrets.
std::string WithoutSecrets(std::string text, const RemoteText& remote);

/// The path below a remote, as rclone takes it.
std::string RemotePath(const std::string& remote, const std::string& relative);

struct RcloneRun {
  std::vector<std::string> arguments;
  int output = -1;  ///< its standard output; nowhere when negative
  int input = -1;   ///< its standard input; as of ProgramRun
  std::function<void(std::uint64_t bytes)> transferred = nullptr;  ///< told while it transfers
};

struct RcloneEnd {
  int exit_status = 0;              ///< 128 + signal when one ended it
  std::vector<std::string> errors;  ///< the last few that it told, without time and level
  bool has_uncompared = false;      ///< it says that some digests could not be compared
};

/// What rclone ends with when the folder, or the file, is not there.
inline constexpr int kRcloneNoFolder = 3;
inline constexpr int kRcloneNoFile = 4;

/// Runs rclone, from PATH and with the caller's configuration, to its end. It is killed when the
/// calling thread ends before. Throws package::Error(kInternal) when it, or what sees to that, is
/// not installed.
RcloneEnd RunRclone(const RcloneRun& run);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_RCLONE_H_
