#ifndef TOLM_OPERATION_SOURCES_H_
#define TOLM_OPERATION_SOURCES_H_

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "operation/link_rules.h"
#include "operation/operator_settings.h"

namespace tolm::operation {

/// From where a copy of the publisher's tree comes.
struct Source {
  enum class Kind {
    kServer,    ///< The configured one.
    kMirror,    ///< Another server; trusted with nothing that is not signed.
    kDirectory  ///< The same on a file system.
  };
  Kind kind = Kind::kServer;
  /// As people are told of it: "https://mirror.example.org/oui" or "/media/stick", without a slash
  /// at its end and without user name and password, which are remembered (see credentials.h).
  std::string address{};
  /// What its cool-down is kept under: "mirror.example.org:443"; empty where none is kept, as for a
  /// directory.
  std::string name{};
};

/// One source's own address of something.
struct Place {
  Source source;
  std::string address;  ///< A URL, or a path below the source's directory.
};

/// Those of this moment in the order in which they are tried: the configured server and its
/// mirrors, or the one that a TakenFrom names. Without those that are left out. Where the settings
/// name no server, it has neither address nor name. Throws std::runtime_error for damaged
/// operator's settings.
std::vector<Source> PresentSources();

/// Where the description is that @p url asks the configured server for.
std::string DescriptionPlace(const Source& source, const std::string& url);

/// Where the package behind a link of the description may come from, in the order in which it is
/// tried: the link itself is the configured server's. Others have it only where the cached
/// description is a signed one and the link leads below its base. Throws as PresentSources() does.
std::vector<Place> PlacesOf(const std::string& link);

/// Throws std::runtime_error that names file and member where the server is asked by https and a
/// mirror would be by http.
void RequireSecureMirrors(const OperatorSettings& settings);

/// As long as one exists, these sources are left out, by their names. One at a time.
class LeftOutSources {
 public:
  explicit LeftOutSources(std::set<std::string> names);
  ~LeftOutSources();
  LeftOutSources(const LeftOutSources&) = delete;
  LeftOutSources& operator=(const LeftOutSources&) = delete;
};

/// As long as one exists, whatever is downloaded is asked from that source, by the thread that has
/// made it; from the one before it afterwards.
class Asking {
 public:
  explicit Asking(Source source);
  ~Asking();
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;

 private:
  std::optional<Source> before_;
};

/// The source that is asked at this moment; nothing when nobody has said which.
const std::optional<Source>& AskedSource();
/// The server that is asked, as scheme, host and port: the configured one where nobody has said
/// which, nothing where the settings name none, and for a directory.
std::optional<Url> AskedServer();

/// Whether all comes from a place that a person has named (see TakenFrom).
bool IsTakenFromElsewhere();
/// Whether that is a directory.
bool IsTakenFromDirectory();
/// Which setting names the asked source, for advice: "db_netloc in /usr/share/...".
std::string SettingOfSource();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SOURCES_H_
