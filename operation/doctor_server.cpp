// Looks at what the server offers.

#include <fcntl.h>
#include <stdlib.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "base/file.h"
#include "base/json_scan.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "operation/belief.h"
#include "operation/bounded_downloads.h"
#include "operation/description_reader.h"
#include "operation/doctor_looks.h"
#include "operation/history.h"
#include "operation/offers.h"
#include "operation/program_watch.h"
#include "operation/sources.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr char kServer[] = "server";
constexpr char kMirror[] = "mirror";
constexpr char kOffers[] = "offers";
constexpr char kSigned[] = "signed";
// So long before its end nobody is surprised by it.
constexpr std::int64_t kEndsSoonSeconds = std::int64_t{2} * 24 * 60 * 60;
constexpr char kRenew[] =
    "ask the publisher, who signs anew by \"tolmdbpub refresh\"; or is a mirror behind?";
constexpr std::chrono::seconds kPatience(30);

// A directory for the answer, which is nobody else's.
class AnswerDirectory {
 public:
  AnswerDirectory() {
    std::string path = fs::temp_directory_path() / "tolmdbud-doctor-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "make " + path);
    }
    path_ = path;
  }
  ~AnswerDirectory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  AnswerDirectory(const AnswerDirectory&) = delete;
  AnswerDirectory& operator=(const AnswerDirectory&) = delete;

  std::string File() const { return path_ / "database_info.json"; }

 private:
  fs::path path_;
};

// Throws UpdateError, also for what takes too long.
void Download(const std::string& url, const std::string& file) {
  const steady_clock::time_point end = steady_clock::now() + kPatience;
  ProgramWatch watch([end] { return steady_clock::now() > end; });
  try {
    WithBoundedDownloads([&] { dataupdate::IOUtils().Download(file, url); });
  } catch (const dataupdate::UpdateError&) {
    watch.Stop();
    if (watch.ended()) {
      throw dataupdate::UpdateError("it has not answered within " +
                                    std::to_string(kPatience.count()) + " s");
    }
    throw;
  }
}

// Measured before it is parsed, as the operations do.
Belief Parse(const std::string& file) {
  const std::string text = base::File(file, O_RDONLY).Read(0, rules::kDescriptionBytes + 1);
  base::JsonScan scan;
  scan.Add(text);
  const base::JsonMeasure& measure = scan.measure();
  if (measure.bytes > rules::kDescriptionBytes || measure.depth > rules::kDescriptionDepth ||
      measure.values > rules::kDescriptionValues) {
    throw dataupdate::UpdateError("its description is larger than one may be");
  }
  try {
    Json::Value document = dataupdate::IOUtils().ReadJson(file);
    if (IsSigned(document) || (document.isObject() && document["db_list"].isObject())) {
      return Believe(Claim(std::move(document)), "its description");
    }
  } catch (const Disbelieved&) {
    throw;
  } catch (const dataupdate::UpdateError&) {
    // Said below.
  }
  throw dataupdate::UpdateError(
      "what it answers is no description: a page of something in between, or a wrong db_ver?");
}

void LookAtEnd(const offer::Accepted& accepted, std::int64_t now, Findings& findings) {
  const std::string what = "by repository " + accepted.repository + ", issued " +
                           TimeText(accepted.issued) + ", valid until " +
                           TimeText(accepted.expires);
  if (accepted.expires - now < kEndsSoonSeconds) {
    findings.Problem(kSigned, "", what + ": no update comes after that", kRenew);
  } else {
    findings.Ok(kSigned, "", what);
  }
}

// Says how the offers are signed, and why they are not believed.
void TakeOffers(Patient& patient, Findings& findings, const std::function<Belief()>& read) {
  try {
    Belief belief = read();
    if (belief.acceptance) {
      patient.accepted = belief.acceptance->accepted;
      LookAtEnd(*patient.accepted, patient.now, findings);
    }
    patient.offers = *belief.document;
  } catch (const Disbelieved& error) {
    const Failure& failure = error.failure();
    findings.Problem(kSigned, "", failure.text, failure.remedy.empty() ? kRenew : failure.remedy);
  }
}

void Ask(Patient& patient, Findings& findings) {
  std::string url;
  const bool asks = findings.Try(kServer, "", "see configuration",
                                 [&] { url = patient.service.info->GetDatabaseUrl(); });
  const bool has_answered =
      asks &&
      findings.Try(kServer, "", "curl -v \"" + url.substr(0, url.find('?')) + "\" shows more", [&] {
        const AnswerDirectory directory;
        const Asking asking(PresentSources().front());
        Download(url, directory.File());
        TakeOffers(patient, findings, [&] { return Parse(directory.File()); });
      });
  if (has_answered) {
    findings.Ok(kServer, "", url.substr(0, url.find('?')) + " answers");
  }
}

// Whether the mirror has what the server has; a signer that has taken another one's place counts
// anew.
bool IsBehind(const offer::Accepted& mirror, const std::optional<offer::Accepted>& server) {
  return server && (mirror.epoch < server->epoch ||
                    (mirror.epoch == server->epoch && mirror.counter < server->counter));
}

void AskMirror(const Source& mirror, const Patient& patient, Findings& findings) {
  findings.Try(kMirror, mirror.address, "ask who runs it, or take it out of mirrors", [&] {
    const std::string url = DescriptionPlace(mirror, patient.service.info->GetDatabaseUrl());
    const AnswerDirectory directory;
    const Asking asking(mirror);
    Download(url, directory.File());
    const Belief belief = Parse(directory.File());
    RequireSigned(belief, "its description");
    const offer::Accepted& accepted = belief.acceptance->accepted;
    if (IsBehind(accepted, patient.accepted)) {
      findings.Note(kMirror, mirror.address,
                    "it is behind the server: its description is of " + TimeText(accepted.issued) +
                        ", the server's of " + TimeText(patient.accepted->issued));
    } else {
      findings.Ok(kMirror, mirror.address,
                  "it answers, with a description of " + TimeText(accepted.issued));
    }
  });
}

// Damaged settings are told elsewhere.
std::vector<Source> Mirrors() {
  try {
    std::vector<Source> sources = PresentSources();
    sources.erase(sources.begin());
    return sources;
  } catch (const std::exception&) {
    return {};
  }
}

void TakeCached(Patient& patient, Findings& findings) {
  try {
    TakeOffers(patient, findings, [] { return BeliefInCached(); });
  } catch (const dataupdate::UpdateError&) {
    // Without offers.
  }
}

}  // namespace

void LookAtServer(Patient& patient, bool asks, Findings& findings) {
  if (!patient.has_settings) {
    findings.Skipped(kServer, "", "the settings do not tell it");
  } else if (asks) {
    Ask(patient, findings);
    for (const Source& mirror : Mirrors()) {
      AskMirror(mirror, patient, findings);
    }
  } else {
    findings.Skipped(kServer, "", "it was not to be asked");
    TakeCached(patient, findings);
  }
  if (!patient.offers) {
    return;
  }
  for (const std::string& name : patient.names) {
    findings.Try(kOffers, name, "ask the publisher; or it is not the server of this database",
                 [&] { OfferIn(*patient.offers, name); });
  }
  if (findings.IsWell(kOffers)) {
    findings.Ok(kOffers, "", "every configured database is offered");
  }
}

}  // namespace tolm::operation
