#include "publish/rollout_picture.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "publish/list.h"
#include "report/chart.h"
#include "report/page.h"

namespace tolm::publish {
namespace {

std::string Percent(int share) {
  constexpr int kPartsOfAPercent = offer::kWholeShare / 100;
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%g %%", static_cast<double>(share) / kPartsOfAPercent);
  return text.data();
}

std::vector<report::StepChart::Step> StepsOf(const offer::RolloutPlan& plan) {
  std::vector<report::StepChart::Step> steps;
  std::int64_t begin = plan.start;
  for (const offer::RolloutStep& step : plan.steps) {
    steps.push_back({begin, static_cast<double>(step.share) / offer::kWholeShare});
    begin += step.seconds;
  }
  return steps;
}

// Where its clock stands.
std::int64_t ClockOf(const offer::RolloutPlan& plan, std::int64_t now) {
  return std::min(now, plan.held.value_or(now));
}

// The last step's end is none; it is drawn as long as a sixth of what is before it.
std::int64_t EndOf(const offer::RolloutPlan& plan) {
  constexpr std::int64_t kPart = 6;
  constexpr std::int64_t kDay = 86400;
  const std::int64_t last = offer::LastStepOf(plan);
  return last + std::max((last - plan.start) / kPart, kDay);
}

}  // namespace

std::string ShareOfDevices(int share) {
  return share == 0                    ? "no device"
         : share == offer::kWholeShare ? "all devices"
                                       : Percent(share) + " of the devices";
}

std::string RolloutText(const offer::RolloutPlan& plan, std::int64_t now) {
  if (plan.stopped) {
    return "is stopped: no further device is offered it";
  }
  const int reached = offer::ShareAt(plan, now);
  if (plan.held && *plan.held <= now) {
    return "is held since " + TimeText(*plan.held) + " at " + ShareOfDevices(reached);
  }
  std::string text = "has reached " + ShareOfDevices(reached);
  std::int64_t begin = plan.start;
  for (const offer::RolloutStep& step : plan.steps) {
    if (begin > now) {
      return text + "; " + ShareOfDevices(step.share) + " from " + TimeText(begin) + " on";
    }
    begin += step.seconds;
  }
  return text;
}

void DrawRollout(report::Html& html, const std::string& id, int version,
                 const offer::RolloutPlan& plan, std::int64_t now) {
  const std::string name = "Version " + std::to_string(version);
  const std::string words = name + ' ' + RolloutText(plan, now) + '.';
  if (plan.stopped) {
    report::PutWarning(html, words);
  } else {
    html.Put("p", words);
  }
  if (plan.steps.empty()) {
    return;
  }
  std::string description = "Share of the devices that are offered it, by time:";
  for (const report::StepChart::Step& step : StepsOf(plan)) {
    description += ' ' + TimeText(step.time) + ' ' +
                   Percent(static_cast<int>(step.share * offer::kWholeShare + 0.5)) + ';';
  }
  description.back() = '.';
  const report::Html::Element pictures(html, "div", {{"class", "pictures"}});
  Draw(html, report::StepChart{id, name + ": share of the devices", description, StepsOf(plan),
                               EndOf(plan), plan.stopped ? 0 : ClockOf(plan, now)});
}

}  // namespace tolm::publish
