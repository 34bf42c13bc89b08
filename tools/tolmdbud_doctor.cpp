// doctor: is everything there that updates need?

#include <algorithm>
#include <memory>

#include "operation/doctor.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::Finding;
using operation::Service;
using State = Finding::State;

// Before a line, and in the document.
struct Words {
  const char* mark;
  const char* name;
};

Words WordsOf(State state) {
  switch (state) {
    case State::kOk:
      return {"ok", "ok"};
    case State::kNote:
      return {"--", "note"};
    case State::kProblem:
      return {"!!", "problem"};
    case State::kSkipped:
      return {"??", "skipped"};
  }
  return {"", ""};
}

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size() + 1, width), ' ');
  return text;
}

std::string LineOf(const Finding& finding) {
  constexpr std::size_t kMarkWidth = 5;
  constexpr std::size_t kCheckWidth = 15;
  return Padded(WordsOf(finding.state).mark, kMarkWidth) + Padded(finding.check, kCheckWidth) +
         (finding.subject.empty() ? "" : finding.subject + ": ") + finding.message +
         (finding.remedy.empty() ? "" : "; do: " + finding.remedy);
}

Json::Value ToJson(const Finding& finding) {
  Json::Value json;
  json["check"] = finding.check;
  json["state"] = WordsOf(finding.state).name;
  json["subject"] = finding.subject;
  json["message"] = finding.message;
  json["remedy"] = finding.remedy;
  return json;
}

int Doctor(Console& console, const Service& service, bool offline) {
  Json::Value& checks = console.Document()["checks"] = Json::Value(Json::arrayValue);
  int status = kSuccess;
  for (const Finding& finding : operation::Diagnose(service, !offline)) {
    console.Say(LineOf(finding));
    checks.append(ToJson(finding));
    status = finding.state == State::kProblem ? kFailure : status;
  }
  return status;
}

}  // namespace

void AddDoctor(CommandSyntax app, Choice& choice) {
  const auto offline = std::make_shared<bool>(false);
  AddCommand(
      app, choice, "doctor", "Look at everything that updates need, and say what to do",
      {"tolmdbud doctor", "tolmdbud doctor --offline", "tolmdbud doctor --json", "",
       "ok: it is well; --: worth knowing; !!: something has to be done; ??: could not be",
       "looked at. Changes nothing. Exit status: 1 when something has to be done."},
      [offline](Console& console, const Service& service) {
        return Interruptible(console, [&] { return Doctor(console, service, *offline); });
      },
      Output::kOwn, Rights::kAnyone)
      .AddFlag("--offline", *offline, "Do not ask the server");
}

}  // namespace tolm::tool
