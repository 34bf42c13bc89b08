#include "publish/remote_check.h"

#include <exception>
#include <map>
#include <memory>
#include <optional>

#include "base/human_text.h"
#include "base/rules.h"
#include "offer/acceptance.h"
#include "offer/error.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/list.h"
#include "publish/outside.h"
#include "publish/repository.h"
#include "publish/signed_description.h"

namespace tolm::publish {
namespace {

bool IsUrl(const std::string& remote) {
  return remote.compare(0, 7, "http://") == 0 || remote.compare(0, 8, "https://") == 0;
}

// What a description says of one package, wherever it says it.
struct Named {
  std::optional<std::uint64_t> size_bytes;
  std::string sha384;  // empty: it does not say
};

class Checker {
 public:
  Checker(const RemoteCheckRequest& request, std::int64_t now, const Steps& steps)
      : request_(request),
        now_(now),
        steps_(steps),
        paths_(request.repository),
        settings_(LoadRepositorySettings(paths_)),
        own_(ServedDescription(paths_, settings_)),
        outside_(IsUrl(request.remote) ? OutsideOnWeb(request.remote, settings_)
                                       : OutsideInStore(request.remote, settings_)) {}

  RemoteCheckReport Run() {
    std::string served;
    try {
      served = outside_->Description();
    } catch (const Error& error) {
      Wrong(error.what());
      return std::move(report_);
    }
    if (CheckForm(served)) {
      CheckSignature(served);
      TakeCatalogDigests();
      CheckPackages();
    }
    report_.wrong.insert(report_.wrong.end(), outside_->wrong.begin(), outside_->wrong.end());
    report_.remarks.insert(report_.remarks.end(), outside_->remarks.begin(),
                           outside_->remarks.end());
    return std::move(report_);
  }

 private:
  static Settings LoadRepositorySettings(const RepositoryPaths& paths) {
    RequireRepository(paths);
    return LoadSettings(paths.SettingsFile());
  }

  void Wrong(const std::string& sentence) { report_.wrong.push_back(sentence); }
  void Remark(const std::string& sentence) { report_.remarks.push_back(sentence); }
  std::string Description() const { return outside_->Name() + ": the description "; }

  // Its part that is not signed, which is all that devices of old read. Whether there is one.
  bool CheckForm(const std::string& served) {
    if (served.size() > rules::kDescriptionBytes) {
      Wrong(Description() + "has " + std::to_string(served.size()) +
            " bytes, and devices refuse it");
    }
    try {
      offers_ = ParseDescription(served, Description() + "is damaged");
    } catch (const Error& error) {
      Wrong(error.what());
      return false;
    }
    for (const auto& [name, offer] : offers_) {
      Name(offer.full.link, offer.full.size_bytes, offer.full.sha384.value_or(""));
      for (const auto& [version, delta] : offer.deltas) {
        Name(delta.link, delta.size_bytes, delta.sha384.value_or(""));
      }
    }
    return true;
  }

  void Name(const std::string& link, std::optional<std::uint64_t> size_bytes,
            const std::string& sha384) {
    Named& named = named_[link];
    const bool differs = (named.size_bytes && size_bytes && *named.size_bytes != *size_bytes) ||
                         (!named.sha384.empty() && !sha384.empty() && named.sha384 != sha384);
    if (differs) {
      Wrong(Description() + "says two things of " + link);
    }
    named.size_bytes = size_bytes ? size_bytes : named.size_bytes;
    named.sha384 = sha384.empty() ? named.sha384 : sha384;
  }

  void CheckSignature(const std::string& served) {
    try {
      const auto signed_text = offer::SignedTextIn(ParseJson(served, Description()));
      if (signed_text) {
        CheckSigned(*signed_text);
      } else if (settings_.IsSigned()) {
        Wrong(Description() + "is not signed");
      } else {
        CompareVersions();
      }
    } catch (const offer::Error& error) {
      Wrong(Description() + error.what());
    }
  }

  // As a device judges that knows nothing of this repository but its root and the revocations.
  void CheckSigned(const offer::SignedText& signed_text) {
    const offer::VerifiedOffer verified =
        Verify(signed_text, package::Trust::Load(settings_.RootFile(), settings_.RevocationsFile()),
               offer::TimeFor(SignerOf(signed_text).not_before, {}, now_));
    for (const auto& [name, database] : verified.offer.databases) {
      NameSigned(verified.offer, database.full);
      for (const auto& [version, delta] : database.deltas) {
        NameSigned(verified.offer, delta);
      }
      if (database.next) {
        NameStaged(verified.offer, *database.next);
      }
    }
    if (verified.offer.repository != settings_.identity) {
      Wrong(Description() + "is another repository's, " + verified.offer.repository);
      return;
    }
    CompareCounters(verified.offer);
    Judge(verified, {}, settings_.info_version, now_);
    if (verified.offer.expires - now_ < DescriptionCareSeconds(settings_)) {
      Remark(Description() + "is valid until " + TimeText(verified.offer.expires) +
             " UTC only; \"tolmdbpub refresh " + paths_.Root() + "\", and push it");
    }
  }

  void NameStaged(const offer::Offer& offer, const offer::NextOffer& next) {
    NameSigned(offer, next.full);
    for (const auto& [version, delta] : next.deltas) {
      NameSigned(offer, delta);
    }
  }

  void NameSigned(const offer::Offer& offer, const offer::PackageOffer& package) {
    Name(LinkOf(offer, package), package.size_bytes, package.sha384);
  }

  void CompareCounters(const offer::Offer& offer) {
    const auto signed_text = offer::SignedTextIn(ParseJson(own_, paths_.Description(settings_)));
    if (!signed_text) {
      Remark(paths_.Description(settings_) + ": is not signed, and is not compared");
      return;
    }
    const offer::Offer own = offer::ParseOffer(signed_text->text);
    if (offer.counter > own.counter) {
      Remark(Description() + "is newer than this repository's: its number is " +
             std::to_string(offer.counter) + ", and this one's " + std::to_string(own.counter));
    } else if (offer.counter < own.counter) {
      Wrong(Description() + "is " + base::HumanDuration(own.issued - offer.issued) +
            " behind this repository's: its number is " + std::to_string(offer.counter) +
            ", and this one's " + std::to_string(own.counter) + Behind());
    } else if (FormatOffer(offer) != FormatOffer(own)) {
      Wrong(Description() + "has the number of this repository's, and another content");
    }
  }

  // In versions; empty where none is.
  std::string Behind() const {
    std::string text;
    for (const auto& [name, own] : ParseDescription(own_, paths_.Description(settings_))) {
      const auto there = offers_.find(name);
      if (there == offers_.end()) {
        text += "; " + name + " is not offered there";
      } else if (there->second.version < own.version) {
        text += "; " + name + ' ' + std::to_string(there->second.version) + " there, " +
                std::to_string(own.version) + " here";
      }
    }
    return text;
  }

  void CompareVersions() {
    if (const std::string behind = Behind(); !behind.empty()) {
      Wrong(Description() + "is behind this repository's" + behind);
    }
  }

  // Of what descriptions do not say themselves: deltas, where they are not signed.
  void TakeCatalogDigests() {
    for (const auto& [path, record] : PackagesOf(LoadCatalog(paths_.CatalogFile()))) {
      const auto found = named_.find(PackageLink(settings_.base_url, path));
      if (found != named_.end() && found->second.sha384.empty()) {
        found->second.sha384 = record.sha384;
      }
    }
  }

  void CheckPackages() {
    std::uint64_t done = 0;
    for (const auto& [link, named] : named_) {
      if (steps_) {
        steps_({request_.quick ? "looking" : "reading", ++done, named_.size()});
      }
      const OutsidePackage found = request_.quick ? outside_->Look(link) : outside_->Measure(link);
      const std::string problem = ProblemOf(named, found);
      if (!problem.empty()) {
        Wrong(link + ": " + problem);
      }
      ++report_.packages;
      report_.bytes += request_.quick ? 0 : found.size_bytes.value_or(0);
    }
  }

  std::string ProblemOf(const Named& named, const OutsidePackage& found) const {
    if (!found.problem.empty()) {
      return found.problem;
    }
    if (found.size_bytes && named.size_bytes && *found.size_bytes != *named.size_bytes) {
      return "has " + std::to_string(*found.size_bytes) + " bytes, and " +
             std::to_string(*named.size_bytes) + " are offered";
    }
    if (!request_.quick && !named.sha384.empty() && found.sha384 != named.sha384) {
      return "is another file than the one that is offered";
    }
    return "";
  }

  const RemoteCheckRequest& request_;
  const std::int64_t now_;
  const Steps& steps_;
  const RepositoryPaths paths_;
  const Settings settings_;
  const std::string own_;
  const std::unique_ptr<Outside> outside_;
  std::map<std::string, Offer> offers_;
  std::map<std::string, Named> named_;  // by link
  RemoteCheckReport report_;
};

}  // namespace

RemoteCheckReport CheckRemote(const RemoteCheckRequest& request, std::int64_t now,
                              const Steps& steps) {
  return Checker(request, now, steps).Run();
}

}  // namespace tolm::publish
