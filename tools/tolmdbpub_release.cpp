// The command that makes a release, and its closing table.

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <memory>

#include "base/utf8.h"
#include "publish/list.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

using publish::FileDelta;
using publish::GroupedNumber;
using publish::ReleaseReport;
using publish::ShareText;

std::string PackedText(const FileDelta& file) {
  return file.packed_bytes ? GroupedNumber(*file.packed_bytes) : "-";
}

void PrintFiles(const std::vector<FileDelta>& files) {
  if (files.empty()) {
    return;
  }
  std::cout << "  kind          new file         delta    compressed  file\n";
  for (const FileDelta& file : files) {
    std::cout << "  " << std::left << std::setw(8) << FileDeltaKindText(file.kind) << std::right
              << std::setw(14) << GroupedNumber(file.file_bytes) << std::setw(14)
              << GroupedNumber(file.bytes) << std::setw(14) << PackedText(file) << "  "
              << base::EscapeControls(file.key);
    if (!file.note.empty()) {
      std::cout << "  (" << base::EscapeControls(file.note) << ')';
    }
    std::cout << '\n';
  }
}

void PrintPackages(const ReleaseReport& report) {
  std::cout << "  full package  " << GroupedNumber(report.full_bytes) << " bytes, " << report.files
            << (report.files == 1 ? " file\n" : " files\n");
  if (report.delta_bytes) {
    std::cout << "  delta         " << GroupedNumber(*report.delta_bytes) << " bytes, "
              << ShareText(*report.delta_bytes, report.full_bytes)
              << " of the full package, replayed and found right\n"
              << "  offered       " << report.offered_deltas
              << (report.offered_deltas == 1 ? " delta" : " deltas") << ", together "
              << GroupedNumber(report.offered_bytes) << " bytes, "
              << ShareText(report.offered_bytes, report.full_bytes) << " of the full package\n";
  } else {
    std::cout << "  delta         none: " << base::EscapeControls(report.no_delta_reason) << '\n';
  }
}

void PrintReport(const std::string& name, const ReleaseReport& report, double seconds) {
  if (report.unchanged) {
    std::cout << base::EscapeControls(name) << ' ' << report.version
              << " is released already with this content\n";
    return;
  }
  std::cout << base::EscapeControls(name) << ' ' << report.version << " is released\n";
  PrintFiles(report.file_deltas);
  PrintPackages(report);
  std::cout << "  time          " << std::fixed << std::setprecision(2) << seconds << " s\n";
}

void Release(const publish::ReleaseRequest& request) {
  const auto start = std::chrono::steady_clock::now();
  ReleaseReport report;
  {
    ProgressLine line;
    report = MakeRelease(
        request, std::time(nullptr), [&line](const std::string& text) { line.Note(text); },
        [&line](const publish::Step& step) { line.Show(step); });
  }
  PrintReport(request.name, report,
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

}  // namespace

void AddReleaseCommand(CLI::App& app) {
  const auto request = std::make_shared<publish::ReleaseRequest>();
  CLI::App* command =
      app.add_subcommand("release", "Release a directory as the next version of a database");
  AddRepositoryOption(*command, request->repository);
  command->add_option("NAME", request->name, "Name of the database")
      ->required()
      ->check(publish::DatabaseNameProblem);
  command->add_option("DIR", request->directory, "Its files")->required();
  command
      ->add_option_function<int>(
          "--version", [request](int version) { request->version = version; },
          "Version to release; by default the one after the newest, at first 1000001")
      ->check(CLI::Range(0, INT_MAX));
  command->add_flag("--follow-links", request->follow_links,
                    "Release what symbolic links lead to, instead of refusing them");
  command->callback([request] { Release(*request); });
}

}  // namespace tolm::tool
