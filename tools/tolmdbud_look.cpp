#include "tools/tolmdbud_look.h"

#include <unistd.h>

#include <functional>
#include <set>
#include <utility>

#include "base/human_text.h"
#include "operation/interrupt.h"

namespace tolm::tool {
namespace {

using operation::Description;
using operation::Details;
using operation::HistoryEntry;
using operation::Installed;
using operation::kNeverInstalled;
using operation::Offer;
using operation::ServerCoolDown;
using operation::Service;
using operation::Timers;
using operation::UpdatePlan;

// What stands in version.json or in the description may be any number.
int VersionOrNone(int version) {
  return version < 0 ? kNeverInstalled : version;
}

// Of one that is installed and offered.
bool IsUpToDate(const Report& report) {
  return report.offer->replaces_higher ? report.version == report.offer->version
                                       : report.version >= report.offer->version;
}

std::string RoadText(const UpdatePlan& plan) {
  return plan.road == UpdatePlan::Road::kDeltas
             ? std::to_string(plan.packages) + (plan.packages == 1 ? " delta" : " deltas")
             : "full";
}

std::string ExactSize(std::uint64_t bytes) {
  constexpr std::uint64_t kFirstUnit = 1000;
  const std::string grouped = base::Grouped(bytes) + " bytes";
  return bytes < kFirstUnit ? grouped : base::HumanSize(bytes) + " (" + grouped + ')';
}

std::string TimeAndWait(std::int64_t time, std::int64_t now) {
  return operation::TimeText(time) +
         (time > now ? " (in " + base::HumanDuration(time - now) + ')' : " (now)");
}

class Look {
 public:
  Look(Console& console, const Service& service, const StatusRequest& request)
      : console_(console), service_(service), request_(request) {}

  Sight Do() {
    const std::vector<std::string> names = NamedOrAll(service_, request_.names);
    sight_.is_good = is_sound_ = ReportSettings(console_);
    LookAtAll();
    for (const std::string& name : names) {
      if (Tries(name, [&] { service_.config->CheckSupported(name); }).empty()) {
        sight_.reports.push_back(Examine(name));
      }
    }
    return std::move(sight_);
  }

 private:
  // Why it failed; empty when it did not.
  std::string Tries(const std::string& context, const std::function<void()>& action) {
    try {
      action();
      return "";
    } catch (const operation::Interrupted&) {
      throw;
    } catch (const std::exception& error) {
      const operation::Failure failure = operation::FailureOf(error);
      if (said_.insert(error.what()).second) {
        console_.Fail(context, failure);
        sight_.problems.push_back(operation::LineOf(context, failure));
      }
      sight_.is_good = false;
      return operation::LineOf("", failure);
    }
  }

  void LookAtAll() {
    Tries("", [this] { sight_.around.volume = service_.config->GetCurVolume(); });
    AskForOffers();
    sight_.around.timers = operation::ExamineTimers();
    const std::string server = operation::ConfiguredServerName(service_);
    for (const ServerCoolDown& cool_down : operation::PresentCoolDowns()) {
      if (cool_down.server == server) {
        sight_.around.cool_down = cool_down;
      }
    }
  }

  // With settings that no operation begins with nobody is asked, and that is said already.
  void AskForOffers() {
    if (!request_.offline) {
      sight_.around.offers_problem =
          is_sound_
              ? Tries("", [this] { sight_.around.description = Description::Fetch(service_); })
              : "no operation begins with these settings";
    }
    if (!sight_.around.description) {
      sight_.around.description = Description::FromCache(service_);
    }
    sight_.around.signature = SignatureOf(sight_.around.description);
  }

  // What was cut short is installed in full, whatever stands in its record.
  Report Examine(const std::string& name) {
    Report report{name,
                  VersionOrNone(operation::RecordedVersion(service_, name)),
                  std::nullopt,
                  "",
                  std::nullopt,
                  std::nullopt,
                  operation::LastOf(name)};
    report.problem =
        Tries(name, [&] { report.installed = operation::ExamineInstalled(service_, name); });
    if (report.installed && report.installed->volume_missing) {
      sight_.around.volume_missing = true;
    }
    if (sight_.around.description) {
      Tries(name, [&] {
        const Offer offer = sight_.around.description->OfferOf(name);
        if (VersionOrNone(offer.version) == kNeverInstalled) {
          return;
        }
        report.offer = offer;
        const bool is_replaced = offer.replaces_higher && report.version > offer.version;
        const bool is_usable = report.installed && !report.installed->cut_short && !is_replaced;
        report.plan = operation::PlanUpdate(is_usable ? report.version : kNeverInstalled,
                                            report.offer->version, report.offer->deltas,
                                            report.offer->full_package_bytes);
      });
    }
    return report;
  }

  Console& console_;
  const Service& service_;
  const StatusRequest& request_;
  Sight sight_;
  std::set<std::string> said_;
  bool is_sound_ = true;  // The settings are; nothing else counts.
};

}  // namespace

Sight LookAround(Console& console, const Service& service, const StatusRequest& request) {
  return Look(console, service, request).Do();
}

std::string VersionText(int version) {
  return version < 0 ? "none" : std::to_string(version);
}

std::string StateOf(const Report& report) {
  if (!report.installed) {
    return "unreadable";
  }
  if (report.installed->volume_missing) {
    return "volume missing";
  }
  if (report.installed->cut_short) {
    return "cut short";
  }
  if (report.version == kNeverInstalled) {
    return "not installed";
  }
  if (!report.offer.has_value()) {
    return "unknown";
  }
  return IsUpToDate(report) ? "up to date" : "update offered";
}

std::optional<std::int64_t> AgeOf(const Report& report, std::int64_t now) {
  const bool is_known = report.installed && report.version != kNeverInstalled &&
                        report.installed->fetched_at > 0 && report.installed->fetched_at <= now;
  return is_known ? std::make_optional(now - report.installed->fetched_at) : std::nullopt;
}

std::string AgeText(const Report& report, std::int64_t now) {
  const std::optional<std::int64_t> age = AgeOf(report, now);
  return age ? base::HumanDuration(*age) + ", made " +
                   operation::TimeText(report.installed->fetched_at)
             : "unknown";
}

std::string OfferText(const std::optional<Offer>& offer) {
  if (!offer.has_value()) {
    return "unknown";
  }
  return VersionText(offer->version) + (offer->deprecated ? " (deprecated)" : "");
}

std::string CostText(const std::optional<UpdatePlan>& plan) {
  if (!plan || plan->road == UpdatePlan::Road::kNothing) {
    return kUnknown;
  }
  return RoadText(*plan) + ", " + (plan->bytes ? base::HumanSize(*plan->bytes) : "?");
}

std::string PlanText(const UpdatePlan& plan) {
  if (plan.road == UpdatePlan::Road::kNothing) {
    return "none needed";
  }
  return (plan.road == UpdatePlan::Road::kDeltas ? RoadText(plan) : "full package") + ", " +
         (plan.bytes ? ExactSize(*plan.bytes) : "size unknown");
}

std::string NextRunWord(const Report& report, const Surroundings& around) {
  if (report.installed && !report.installed->scheduled) {
    return "off";
  }
  const Timers& timers = around.timers;
  if (timers.update.next) {
    const std::int64_t wait = *timers.update.next - around.now;
    return wait > 0 ? "in " + base::HumanDuration(wait) : "now";
  }
  return timers.cron.empty() ? kUnknown : "cron";
}

std::string NextRunText(const Timers& timers, std::int64_t now) {
  if (timers.update.next) {
    return TimeAndWait(*timers.update.next, now);
  }
  if (!timers.cron.empty()) {
    return "by cron, see " + timers.cron;
  }
  return timers.is_known && !timers.update.is_waiting
             ? "none, " + timers.update.unit + " is not started"
             : "unknown";
}

std::string LastText(const std::optional<HistoryEntry>& last) {
  if (!last.has_value()) {
    return "none recorded";
  }
  std::string text = last->time + ' ' + (last->scheduled ? "scheduled " : "") + last->operation +
                     ": " + last->outcome;
  if (last->from != last->to) {
    text += ", " + VersionText(last->from) + " to " + VersionText(last->to);
  }
  if (!last->server.empty()) {
    text += ", from " + last->server;
  }
  return last->message.empty() ? text : text + ", " + last->message;
}

std::string VolumeText(const Installed& installed) {
  if (installed.volume.empty()) {
    return "none";
  }
  return installed.volume + (installed.volume_missing ? " (not mounted)" : "");
}

std::string ChosenVolumeText(const Surroundings& around) {
  return (around.volume.empty() ? "none" : around.volume) +
         (around.volume_missing ? " (not mounted)" : "");
}

std::string OffersFromText(const Surroundings& around) {
  if (!around.description) {
    return "none";
  }
  // It may have been downloaded since this command began.
  constexpr std::int64_t kMomentSeconds = 60;
  const std::int64_t time = around.description->downloaded_at();
  return operation::TimeText(time) +
         (time > around.now + kMomentSeconds
              ? " (later than this machine's clock)"
              : " (" + base::HumanDuration(around.now - time) + " ago)");
}

const char* RecordText(Details::Record record) {
  switch (record) {
    case Details::Record::kNone:
      return "none";
    case Details::Record::kOutdated:
      return "outdated, another program has installed since";
    case Details::Record::kDamaged:
      return "damaged";
    case Details::Record::kCurrent:
      return "current";
  }
  return "";
}

std::string FloorText(const std::optional<int>& floor) {
  if (floor) {
    return VersionText(*floor);
  }
  return geteuid() == 0 ? "unknown, trust.json is damaged" : "unknown, it is for root's eyes";
}

std::string LocksText(const std::vector<operation::LockUse>& locks) {
  std::string text;
  for (const operation::LockUse& use : locks) {
    text += (text.empty() ? "" : "; ") + use.lock + " by process " + std::to_string(use.process) +
            (use.program.empty() ? "" : ", " + use.program);
  }
  return text.empty() ? "none held" : text;
}

std::string CoolDownText(const ServerCoolDown& cool_down) {
  return cool_down.server + " until " + operation::TimeText(cool_down.until);
}

std::string CoolDownReason(const ServerCoolDown& cool_down) {
  return "after " + std::to_string(cool_down.failures) +
         (cool_down.failures == 1 ? " failure" : " failures in a row") +
         "; a run by hand does not wait";
}

}  // namespace tolm::tool
