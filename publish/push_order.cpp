#include "publish/push_order.h"

#include <exception>
#include <map>
#include <optional>

#include "offer/signed_offer.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/list.h"
#include "publish/signed_description.h"

namespace tolm::publish {
namespace {

// What a signed description says, whether it is to be believed or not; nothing when it says
// nothing.
std::optional<offer::Offer> ClaimOf(const std::string& text) {
  try {
    const auto signed_text = offer::SignedTextIn(ParseJson(text, "the description"));
    return signed_text ? std::optional<offer::Offer>(offer::ParseOffer(signed_text->text))
                       : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

class Judge {
 public:
  Judge(const PushOrder& order, const Settings& settings, std::int64_t now, const Notes& notes)
      : order_(order), settings_(settings), now_(now), notes_(notes) {}

  void Run() const {
    std::map<std::string, Offer> offers;
    try {
      offers = ParseDescription(order_.present, order_.remote);
    } catch (const Error&) {
      notes_(order_.remote + ": the description there is damaged, and is replaced");
      return;
    }
    const std::optional<offer::Offer> claim = ClaimOf(order_.present);
    if (!claim) {
      JudgeUnsigned(offers);
    } else if (!settings_.IsSigned()) {
      Refuse(
          "the description there is signed, and this repository signs none; devices that have "
          "had it take no other");
    } else {
      JudgeSigned(*claim);
    }
  }

 private:
  void Refuse(const std::string& why) const {
    if (!order_.insist) {
      throw Error(order_.remote + ": " + why + " (--yes replaces it all the same)");
    }
    notes_(order_.remote + ": " + why + "; it is replaced all the same");
  }
  [[noreturn]] void RefuseNewer(const std::string& what) const {
    throw Error(order_.remote + ": " + what +
                "; is this repository an older copy? Nothing was changed");
  }

  void JudgeSigned(const offer::Offer& claim) const {
    if (claim.repository != settings_.identity) {
      Refuse("the description there is another repository's, " + claim.repository);
      return;
    }
    const std::optional<offer::Offer> next = ClaimOf(order_.next);
    if (next && (claim.counter < next->counter || FormatOffer(claim) == FormatOffer(*next))) {
      return;
    }
    if (const std::string problem = ProblemOf(order_.present); !problem.empty()) {
      Refuse(
          "the description there says that it is newer than this repository's, and is not to "
          "be believed: " +
          problem);
      return;
    }
    if (next && claim.counter == next->counter) {
      RefuseNewer("the description there has the same number, " + std::to_string(claim.counter) +
                  ", and another content");
    }
    RefuseNewer("the description there is newer: its number is " + std::to_string(claim.counter) +
                ", issued on " + TimeText(claim.issued) + " UTC, and this repository's " +
                (next ? "is " + std::to_string(next->counter) : "has none"));
  }

  std::string ProblemOf(const std::string& text) const {
    try {
      VerifyDescription(text, settings_, now_);
      return "";
    } catch (const std::exception& error) {
      return error.what();
    }
  }

  void JudgeUnsigned(const std::map<std::string, Offer>& offers) const {
    const std::string base = settings_.base_url.Text() + '/';
    const bool is_ours = Sha384OfText(order_.present) == order_.last_pushed;
    for (const auto& [name, offer] : offers) {
      if (!is_ours && offer.full.link.compare(0, base.size(), base) != 0) {
        Refuse("the description there is another repository's: it leads to " + offer.full.link);
        return;
      }
    }
    for (const auto& [name, offer] : ParseDescription(order_.next, order_.remote)) {
      const auto there = offers.find(name);
      if (there != offers.end() && there->second.version > offer.version) {
        RefuseNewer("the description there is newer: it offers " + name + ' ' +
                    std::to_string(there->second.version) + ", and this repository " +
                    std::to_string(offer.version));
      }
    }
  }

  const PushOrder& order_;
  const Settings& settings_;
  const std::int64_t now_;
  const Notes& notes_;
};

}  // namespace

void RequireMayFollow(const PushOrder& order, const Settings& settings, std::int64_t now,
                      const Notes& notes) {
  if (order.present != order.next) {
    Judge(order, settings, now, notes).Run();
  }
}

}  // namespace tolm::publish
