#ifndef TOLM_TOOLS_TOLMDBUD_LOOK_H_
#define TOLM_TOOLS_TOLMDBUD_LOOK_H_

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "operation/failure.h"
#include "operation/history.h"
#include "operation/service.h"
#include "operation/survey.h"
#include "operation/timers.h"
#include "tools/tolmdbud_cli.h"
#include "tools/tolmdbud_metrics.h"

/// What `status` finds out, and what it says of it in words: as lines, and on a page.
namespace tolm::tool {

inline constexpr char kUnknown[] = "-";  ///< In a table.

/// All that is known of one database.
struct Report {
  std::string name;
  int version = operation::kNeverInstalled;
  std::optional<operation::Installed> installed;  ///< Nothing when it could not be looked at.
  std::string problem;                            ///< Why not.
  std::optional<operation::Offer> offer;
  std::optional<operation::UpdatePlan> plan;
  std::optional<operation::HistoryEntry> last;
};

/// What is the same for all of them.
struct Surroundings {
  std::int64_t now = std::time(nullptr);
  std::string volume;
  bool volume_missing = false;
  std::optional<operation::Description> description;
  std::string offers_problem;
  std::optional<operation::OffersSignature> signature;
  operation::Timers timers;
  std::optional<operation::ServerCoolDown> cool_down;
};

/// All of it.
struct Sight {
  Surroundings around;
  std::vector<Report> reports;
  std::vector<std::string> problems;  ///< Of what could not be looked at: a line each.
  bool is_good = true;                ///< There was none, and the settings are sound.
};

struct StatusRequest {
  std::vector<std::string> names;
  bool offline = false;
  std::string page;  ///< Where a page is to be; empty: the result is lines.
  MetricsRequest metrics;
};

/// One look at databases; all without a name. What is amiss is said on the console, what is amiss
/// with the settings of all of them once. Throws Interrupted, and UpdateError where not even their
/// names can be read.
Sight LookAround(Console& console, const operation::Service& service, const StatusRequest& request);

// ---- In words ----

std::string VersionText(int version);
std::string StateOf(const Report& report);
/// How long ago the publisher made what is installed; nothing for times that are none.
std::optional<std::int64_t> AgeOf(const Report& report, std::int64_t now);
std::string AgeText(const Report& report, std::int64_t now);
std::string OfferText(const std::optional<operation::Offer>& offer);
/// What an update would cost, for a table and in full.
std::string CostText(const std::optional<operation::UpdatePlan>& plan);
std::string PlanText(const operation::UpdatePlan& plan);
/// The next run, for a table and in full.
std::string NextRunWord(const Report& report, const Surroundings& around);
std::string NextRunText(const operation::Timers& timers, std::int64_t now);
std::string LastText(const std::optional<operation::HistoryEntry>& last);
std::string VolumeText(const operation::Installed& installed);
/// The volume of all, and when the server made its offers.
std::string ChosenVolumeText(const Surroundings& around);
std::string OffersFromText(const Surroundings& around);
const char* RecordText(operation::Details::Record record);
std::string FloorText(const std::optional<int>& floor);
std::string LocksText(const std::vector<operation::LockUse>& locks);
std::string CoolDownText(const operation::ServerCoolDown& cool_down);
std::string CoolDownReason(const operation::ServerCoolDown& cool_down);

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_TOLMDBUD_LOOK_H_
