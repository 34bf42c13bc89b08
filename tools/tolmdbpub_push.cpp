// The command that brings a repository to a store, and the look at what is served from outside.

#include <cstdint>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>

#include "base/human_text.h"
#include "base/utf8.h"
#include "publish/push.h"
#include "publish/remote_check.h"
#include "tools/tolmdbpub_commands.h"

namespace tolm::tool {
namespace {

using base::EscapeControls;

std::string Packages(std::uint64_t count) {
  return std::to_string(count) + (count == 1 ? " package" : " packages");
}

void PrintPaths(const char* what, const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    std::cout << what << ' ' << EscapeControls(path) << '\n';
  }
}

void PrintPushed(const publish::PushRequest& request, const publish::PushReport& report) {
  PrintPaths(request.dry_run ? "would upload" : "uploaded", report.uploaded);
  PrintPaths(request.dry_run ? "would remove" : "removed", report.removed);
  std::cout << EscapeControls(report.remote) << ": "
            << (request.dry_run             ? "nothing was changed; the description is "
                : report.is_new_description ? "the description is new; "
                                            : "the description was there; ");
  if (request.dry_run) {
    std::cout << (report.is_new_description ? "another one; " : "there; ");
  }
  std::cout << Packages(report.packages) << ", "
            << (request.dry_run ? "to be uploaded " : "uploaded ")
            << base::HumanSize(report.uploaded_bytes);
  if (report.proved > 0) {
    std::cout << ", " << report.proved << " proved";
  }
  if (!report.waiting.empty()) {
    std::cout << "; " << Packages(report.waiting.size()) << " to be removed after the grace time";
  }
  std::cout << '\n';
}

void Push(const publish::PushRequest& request) {
  publish::PushReport report;
  {
    ProgressLine line;
    report = publish::Push(
        request, std::time(nullptr), [&line](const std::string& text) { line.Note(text); },
        [&line](const publish::Step& step) { line.Show(step); });
  }
  PrintPushed(request, report);
}

}  // namespace

void AddPushCommand(CommandSyntax app) {
  const auto request = std::make_shared<publish::PushRequest>();
  const CommandSyntax command = app.AddCommand(
      "push", "Bring what is served to a store, by rclone: packages, then the description");
  AddRepositoryOption(command, request->repository);
  command
      .AddOption("REMOTE", request->remote,
                 "What rclone understands: \"name:path\", \":type,key=value:path\", a folder")
      .Required();
  command.AddFlag("--dry-run", request->dry_run, "Say what would be done, and change nothing");
  command
      .AddOption("--grace", request->grace_days,
                 "Days that packages stay there which the repository has no more")
      .ShowDefault()
      .InRange(0, 36500);
  command.AddFlag("--again", request->again, "Prove also packages that were proved there before");
  command.AddFlag("--yes", request->insist,
                  "Replace another repository's description, do not wait for another's push");
  command.OnChosen([request] { Push(*request); });
}

int CheckRemoteNow(const publish::RemoteCheckRequest& request) {
  publish::RemoteCheckReport report;
  {
    ProgressLine line;
    report = publish::CheckRemote(request, std::time(nullptr),
                                  [&line](const publish::Step& step) { line.Show(step); });
  }
  for (const std::string& remark : report.remarks) {
    PrintNote(remark);
  }
  for (const std::string& sentence : report.wrong) {
    PrintError(sentence);
  }
  if (!report.wrong.empty()) {
    return kFailure;
  }
  std::cout << "in order" << (request.quick ? ", as far as was looked: " : ": ")
            << Packages(report.packages);
  if (request.quick) {
    std::cout << ", the sizes alone\n";
  } else {
    std::cout << ", " << base::HumanSize(report.bytes) << " read\n";
  }
  return kSuccess;
}

}  // namespace tolm::tool
