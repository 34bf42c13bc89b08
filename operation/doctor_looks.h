#ifndef TOLM_OPERATION_DOCTOR_LOOKS_H_
#define TOLM_OPERATION_DOCTOR_LOOKS_H_

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "offer/acceptance.h"
#include "operation/doctor.h"

namespace tolm::operation {

/// What the looks at a device have found so far, in their order.
class Findings {
 public:
  using State = Finding::State;

  void Ok(const std::string& check, const std::string& subject, const std::string& message) {
    all_.push_back({check, State::kOk, subject, message, ""});
  }
  void Note(const std::string& check, const std::string& subject, const std::string& message,
            const std::string& remedy = "") {
    all_.push_back({check, State::kNote, subject, message, remedy});
  }
  void Problem(const std::string& check, const std::string& subject, const std::string& message,
               const std::string& remedy) {
    all_.push_back({check, State::kProblem, subject, message, remedy});
  }
  void Skipped(const std::string& check, const std::string& subject, const std::string& message) {
    all_.push_back({check, State::kSkipped, subject, message, ""});
  }

  /// Runs it and says why it failed: ground that is not root's alone with the remedy that belongs
  /// to it, what the caller may not look at as skipped, anything else as a problem. Returns whether
  /// it did not fail. Interrupted passes.
  bool Try(const std::string& check, const std::string& subject, const std::string& remedy,
           const std::function<void()>& look);

  /// Whether that check has nothing but what is well so far.
  bool IsWell(const std::string& check) const;
  const std::vector<Finding>& all() const { return all_; }

 private:
  std::vector<Finding> all_;
};

/// The device that is looked at.
struct Patient {
  const Service& service;
  std::int64_t now;
  bool has_settings = false;                  ///< Of the server and the volume.
  std::vector<std::string> names{};           ///< Of the databases, as far as the settings tell.
  std::string volume{};                       ///< The chosen one; empty for none.
  std::optional<Json::Value> offers{};        ///< The server's description, or the cached one.
  std::optional<offer::Accepted> accepted{};  ///< What that is, where it is a signed one.
};

/// Each adds what it finds. None throws anything but Interrupted and std::bad_alloc.
/// doctor.cpp:
void LookAtSettings(Patient& patient, Findings& findings);
/// doctor_trust.cpp:
void LookAtKeyring(const Patient& patient, Findings& findings);
void LookAtClock(const Patient& patient, Findings& findings);
/// doctor_ground.cpp:
void LookAtVolume(const Patient& patient, Findings& findings);
void LookAtRoom(const Patient& patient, Findings& findings);
void LookAtRights(const Patient& patient, Findings& findings);
void LookAtPlugins(const Patient& patient, Findings& findings);
/// doctor_server.cpp:
void LookAtServer(Patient& patient, bool asks, Findings& findings);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DOCTOR_LOOKS_H_
