#include "operation/source_cool_downs.h"

#include <algorithm>
#include <set>
#include <utility>

#include "operation/history.h"

namespace tolm::operation {
namespace {

std::string TextOf(const std::string& server, const CoolDown::HeldBack& held) {
  return server + " is left alone until " + TimeText(held.until) + " after " +
         std::to_string(held.failures) + (held.failures == 1 ? " failure" : " failures in a row");
}

}  // namespace

SourceCoolDowns::SourceCoolDowns(const std::vector<Source>& sources) {
  for (const Source& source : sources) {
    if (!source.name.empty()) {
      entries_.try_emplace(source.name, Entry{CoolDown(source.name)});
    }
  }
}

std::optional<SourceCoolDowns::HeldBack> SourceCoolDowns::Ask() {
  std::set<std::string> left_out;
  HeldBack all{"", false};
  for (auto& [name, entry] : entries_) {
    if (const std::optional<CoolDown::HeldBack> held = entry.cool_down.Ask()) {
      left_out.insert(name);
      all.why += (all.why.empty() ? "the server " : ", ") + TextOf(name, *held);
      all.first_asked = all.first_asked || held->first_asked;
    }
  }
  if (!entries_.empty() && left_out.size() == entries_.size()) {
    return all;
  }
  left_out_.emplace(std::move(left_out));
  return std::nullopt;
}

void SourceCoolDowns::BeginAttempt(const Source& source) {
  const auto entry = entries_.find(source.name);
  if (entry != entries_.end() && !entry->second.is_asked) {
    entry->second.cool_down.BeginAttempt();
    entry->second.is_asked = true;
  }
}

void SourceCoolDowns::Answered(const Source& source, bool is_fit) {
  const auto entry = entries_.find(source.name);
  if (entry != entries_.end()) {
    entry->second.is_fit = is_fit;
  }
}

// Where there is only one, what was good is good for it.
void SourceCoolDowns::Succeed() {
  for (auto& [name, entry] : entries_) {
    if (entries_.size() == 1 || (entry.is_asked && entry.is_fit)) {
      entry.cool_down.Succeed();
    }
  }
}

void SourceCoolDowns::Withdraw() {
  for (auto& [name, entry] : entries_) {
    if (entry.is_asked) {
      entry.cool_down.Withdraw();
    }
  }
}

}  // namespace tolm::operation
