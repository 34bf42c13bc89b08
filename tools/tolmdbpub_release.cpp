// The commands that make a release, or take one back, and their closing table.

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>

#include "base/human_text.h"
#include "base/parallel.h"
#include "base/utf8.h"
#include "publish/list.h"
#include "publish/withdraw.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

using base::EscapeControls;
using publish::FileChange;
using publish::FileChangeKind;
using publish::FileDelta;
using publish::Load;
using publish::ReleaseReport;
using publish::ShareText;

// Of the loads, those of the newest versions and that of the oldest one are shown.
constexpr std::size_t kShownLoads = 4;

std::string Counted(std::uint64_t count, const char* noun) {
  return base::Grouped(count) + ' ' + noun + (count == 1 ? "" : "s");
}

std::string PackedText(const FileDelta& file) {
  return file.packed_bytes ? base::Grouped(*file.packed_bytes) : "-";
}

void PrintNameAndNotes(const std::string& key, const std::vector<std::string>& notes) {
  std::cout << "  " << EscapeControls(key);
  const char* before = "  (";
  for (const std::string& note : notes) {
    if (!note.empty()) {
      std::cout << before << EscapeControls(note);
      before = "; ";
    }
  }
  std::cout << (*before == ';' ? ")\n" : "\n");
}

std::string RenamedText(const std::string& from) {
  return from.empty() ? "" : "renamed from " + from;
}

void PrintDeltas(const ReleaseReport& report) {
  std::map<std::string, std::string> renamed;
  for (const FileChange& change : report.changes) {
    renamed[change.key] = RenamedText(change.renamed_from);
  }
  std::cout << "  kind          new file         delta    compressed  file\n";
  for (const FileDelta& file : report.file_deltas) {
    std::cout << "  " << std::left << std::setw(8) << FileDeltaKindText(file.kind) << std::right
              << std::setw(14) << base::Grouped(file.file_bytes) << std::setw(14)
              << base::Grouped(file.bytes) << std::setw(14) << PackedText(file);
    PrintNameAndNotes(file.key, {renamed[file.key], file.note});
  }
}

void PrintChanges(const std::vector<FileChange>& changes) {
  std::cout << "  kind          new file  file\n";
  for (const FileChange& change : changes) {
    std::cout << "  " << std::left << std::setw(8) << FileChangeKindText(change.kind) << std::right
              << std::setw(14) << base::Grouped(change.bytes);
    PrintNameAndNotes(change.key, {RenamedText(change.renamed_from)});
  }
}

void PrintFiles(const ReleaseReport& report) {
  if (!report.file_deltas.empty()) {
    PrintDeltas(report);
  } else if (!report.changes.empty()) {
    PrintChanges(report.changes);
  }
}

// "2 changed, 1 new, 17 as before".
std::string ChangesText(const ReleaseReport& report) {
  std::map<FileChangeKind, std::uint64_t> counts;
  for (const FileChange& change : report.changes) {
    ++counts[change.kind];
  }
  std::string text;
  std::uint64_t as_before = report.files;
  for (const auto& [kind, count] : counts) {
    as_before -= kind == FileChangeKind::kGone ? 0 : count;
    text += base::Grouped(count) + ' ' + FileChangeKindText(kind) + ", ";
  }
  return text + base::Grouped(as_before) + " as before";
}

void PrintPackages(const ReleaseReport& report) {
  if (!report.changes.empty()) {
    std::cout << "  files         " << ChangesText(report) << '\n';
  }
  std::cout << "  full package  " << base::Grouped(report.full_bytes) << " bytes, "
            << Counted(report.files, "file") << '\n';
  if (report.delta_bytes) {
    std::cout << "  delta         " << base::Grouped(*report.delta_bytes) << " bytes, "
              << ShareText(*report.delta_bytes, report.full_bytes)
              << " of the full package, replayed and found right\n"
              << "  offered       " << Counted(report.offered_deltas, "delta") << ", together "
              << base::Grouped(report.offered_bytes) << " bytes, "
              << ShareText(report.offered_bytes, report.full_bytes) << " of the full package\n";
  } else {
    std::cout << "  delta         none: " << EscapeControls(report.no_delta_reason) << '\n';
  }
}

void PrintLoad(const std::string& who, std::uint64_t bytes, const std::string& how) {
  std::cout << "    " << std::left << std::setw(24) << who << std::right << std::setw(16)
            << base::Grouped(bytes) << " bytes  " << how << '\n';
}

void PrintLoads(const ReleaseReport& report) {
  std::cout << "  devices load\n";
  for (std::size_t i = 0; i < report.loads.size(); ++i) {
    const Load& load = report.loads[i];
    const bool is_last = i + 1 == report.loads.size();
    if (i + 1 >= kShownLoads && !is_last) {
      continue;
    }
    if (is_last && i >= kShownLoads) {
      std::cout << "    ...\n";
    }
    PrintLoad("with " + std::to_string(load.version) + (load.withdrawn ? " (withdrawn)" : ""),
              load.bytes,
              Counted(load.deltas, "delta") + ", " + ShareText(load.bytes, report.full_bytes) +
                  " of the full package");
  }
  PrintLoad(report.loads.empty() ? "all of them" : "with anything else", report.full_bytes,
            "the full package");
}

void PrintTables(const ReleaseReport& report, double seconds) {
  PrintFiles(report);
  PrintPackages(report);
  PrintLoads(report);
  std::cout << "  time          " << std::fixed << std::setprecision(2) << seconds << " s\n";
}

// Of a staged release.
void PrintRollout(const ReleaseReport& report) {
  if (report.rollout) {
    std::cout << "  rollout       " << RolloutText(*report.rollout, report.rollout->plan.start)
              << '\n';
  }
}

void PrintReport(const publish::ReleaseRequest& request, const ReleaseReport& report,
                 double seconds) {
  const std::string what = EscapeControls(request.name) + ' ' + std::to_string(report.version);
  if (report.unchanged) {
    std::cout << what << " is released already with this content\n";
    return;
  }
  std::cout << what
            << (!request.dry_run         ? " is released\n"
                : report.refusal.empty() ? " would be released; nothing was changed\n"
                                         : " would be refused; nothing was changed\n");
  PrintRollout(report);
  PrintTables(report, seconds);
}

void PrintReport(const publish::WithdrawRequest& request, const publish::WithdrawReport& report,
                 double seconds) {
  const std::string name = EscapeControls(request.name) + ' ';
  const std::string bad = std::to_string(request.version);
  const std::string newest = std::to_string(report.newest);
  const char* const is = request.dry_run ? " would be " : " is ";
  if (!report.restored) {
    std::cout << name << bad << is << "marked as withdrawn; devices are offered " << newest
              << " already\n";
  } else {
    std::cout << name << newest << is << "released with the files of " << *report.restored << "; "
              << bad << is << "withdrawn\n";
  }
  if (request.dry_run) {
    std::cout << "  nothing was changed\n";
  }
  if (report.has_ended_rollout) {
    std::cout << "  rollout       over: all devices are offered " << newest << '\n';
  }
  if (report.restored) {
    PrintTables(report.release, seconds);
  }
}

// Runs `make` with a progress line; returns its result and the seconds that it took.
template <typename Make>
auto Timed(const Make& make) {
  const auto start = std::chrono::steady_clock::now();
  ProgressLine line;
  auto report = make(
      std::time(nullptr), [&line](const std::string& text) { line.Note(text); },
      [&line](const publish::Step& step) { line.Show(step); });
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  return std::make_pair(std::move(report), seconds.count());
}

void PrintFindings(const std::vector<std::string>& findings) {
  for (const std::string& finding : findings) {
    PrintError(finding);
  }
}

int Release(const publish::ReleaseRequest& request) {
  try {
    const auto [report, seconds] = Timed(
        [&request](std::int64_t now, const publish::Notes& notes, const publish::Steps& steps) {
          return MakeRelease(request, now, notes, steps);
        });
    PrintReport(request, report, seconds);
    if (report.refusal.empty()) {
      return kSuccess;
    }
    std::cout.flush();
    PrintFindings(report.findings);
    PrintError("release " + request.name + ": would be refused: " + report.refusal);
  } catch (const publish::Refused& refused) {
    PrintFindings(refused.findings());
    PrintError(refused.what());
  }
  return kFailure;
}

void Withdraw(const publish::WithdrawRequest& request) {
  const auto [report, seconds] =
      Timed([&request](std::int64_t now, const publish::Notes& notes, const publish::Steps& steps) {
        return WithdrawRelease(request, now, notes, steps);
      });
  PrintReport(request, report, seconds);
}

void AddName(CommandSyntax command, std::string& name) {
  command.AddOption("NAME", name, "Name of the database")
      .Required()
      .Check(publish::DatabaseNameProblem);
}

void AddJobs(CommandSyntax command, int& jobs) {
  command
      .AddOption("--jobs", jobs,
                 "How many things are done at a time; by default as many as there are processors")
      .InRange(1, base::kMostJobs);
}

std::string StagesProblem(const std::string& text) {
  try {
    publish::ParseStages(text);
  } catch (const std::exception& error) {
    return error.what();
  }
  return {};
}

}  // namespace

void AddReleaseCommand(CommandSyntax app, int& status) {
  const auto request = std::make_shared<publish::ReleaseRequest>();
  const CommandSyntax command =
      app.AddCommand("release", "Release a directory as the next version of a database");
  AddRepositoryOption(command, request->repository);
  AddName(command, request->name);
  command.AddOption("DIR", request->directory, "Its files").Required();
  command
      .AddOption("--version", request->version,
                 "Version to release; by default the one after the newest, at first 1000001")
      .InRange(0, INT_MAX);
  command.AddFlag("--follow-links", request->follow_links,
                  "Release what symbolic links lead to, instead of refusing them");
  command.AddFlag("--dry-run", request->dry_run, "Do everything but the change");
  command.AddFlag("--allow-shrink", request->allow_shrink,
                  "Release files, tables and rows that have become much fewer all the same");
  command.AddFlag("--allow-withdrawn", request->allow_withdrawn,
                  "Release the files of a withdrawn version all the same");
  command
      .AddOption(
          "--stages",
          [request](const std::string& text) { request->stages = publish::ParseStages(text); },
          "Reach so many of the devices after another: 1%/1d,10%/2d,100%")
      .Check(StagesProblem);
  AddJobs(command, request->jobs);
  command.OnChosen([request, &status] { status = Release(*request); });
}

void AddWithdrawCommand(CommandSyntax app) {
  const auto request = std::make_shared<publish::WithdrawRequest>();
  const CommandSyntax command = app.AddCommand(
      "withdraw", "Release the files before a bad version again, as the version after it");
  AddRepositoryOption(command, request->repository);
  AddName(command, request->name);
  command.AddOption("VERSION", request->version, "The bad version").Required().InRange(0, INT_MAX);
  command.AddFlag("--dry-run", request->dry_run, "Do everything but the change");
  AddJobs(command, request->jobs);
  command.OnChosen([request] { Withdraw(*request); });
}

}  // namespace tolm::tool
