#include "offer/rollout.h"

#include <algorithm>

#include "base/digest.h"

namespace tolm::offer {
namespace {

std::string ProblemOfStep(const RolloutStep& step, int share_before, bool is_last) {
  if (step.share <= share_before || step.share > kWholeShare) {
    return "a step's share must be above that of the step before, and at most the whole";
  }
  if (step.seconds < 0 || step.seconds > kLongestStepSeconds || (step.seconds == 0) != is_last) {
    return "each step but the last one takes its time, ten years at most";
  }
  return "";
}

}  // namespace

std::string ProblemOf(const RolloutPlan& plan) {
  if (plan.steps.empty() || plan.steps.size() > kMostRolloutSteps) {
    return "it has no steps, or more than " + std::to_string(kMostRolloutSteps);
  }
  if (plan.start < 0 || plan.held.value_or(plan.start) > kLatestRolloutTime) {
    return "its times are before 1970 or after the year 9999";
  }
  if (plan.held && *plan.held < plan.start) {
    return "it was held before its start";
  }
  int share = 0;
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    const std::string problem = ProblemOfStep(plan.steps[i], share, i + 1 == plan.steps.size());
    if (!problem.empty()) {
      return problem;
    }
    share = plan.steps[i].share;
  }
  return "";
}

int ShareAt(const RolloutPlan& plan, std::int64_t at) {
  if (plan.stopped) {
    return 0;
  }
  const std::int64_t clock = std::min(at, plan.held.value_or(at));
  int share = 0;
  std::int64_t begin = plan.start;
  for (const RolloutStep& step : plan.steps) {
    if (clock < begin) {
      break;
    }
    share = step.share;
    begin += step.seconds;
  }
  return share;
}

std::optional<std::int64_t> TimeOfPosition(const RolloutPlan& plan, int position) {
  std::int64_t begin = plan.start;
  for (const RolloutStep& step : plan.steps) {
    if (step.share > position) {
      return begin;
    }
    begin += step.seconds;
  }
  return std::nullopt;
}

std::int64_t LastStepOf(const RolloutPlan& plan) {
  std::int64_t begin = plan.start;
  for (const RolloutStep& step : plan.steps) {
    begin += step.seconds;
  }
  return begin;
}

int PositionOf(const std::string& identifier, const std::string& database, int version) {
  constexpr std::size_t kHexDigits = 8;
  const std::string text = identifier + '\n' + database + '\n' + std::to_string(version);
  base::Sha384 digest;
  digest.Add(text.data(), text.size());
  const std::uint64_t number = std::stoull(digest.Hex().substr(0, kHexDigits), nullptr, 16);
  return static_cast<int>((number * kWholeShare) >> 32);
}

}  // namespace tolm::offer
