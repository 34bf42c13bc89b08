// The commands that make, show, prove and change a repository.

#include <climits>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "base/parallel.h"
#include "base/utf8.h"
#include "publish/certificates.h"
#include "publish/change_settings.h"
#include "publish/check.h"
#include "publish/diff.h"
#include "publish/list.h"
#include "publish/page.h"
#include "publish/prune.h"
#include "publish/resign.h"
#include "tools/tolmdbpub_commands.h"
#include "tools/tolmdbpub_metrics.h"

namespace tolm::tool {
namespace {

using base::EscapeControls;

constexpr int kMaxSinceDays = 36500;

std::string BaseUrlProblem(const std::string& text) {
  try {
    publish::ParseBaseUrl(text);
  } catch (const std::exception& error) {
    return error.what();
  }
  return {};
}

std::string SqliteVersionProblem(const std::string& text) {
  try {
    publish::ParseSqliteVersion(text);
  } catch (const std::exception& error) {
    return error.what();
  }
  return {};
}

void AddName(CommandSyntax command, std::string& name) {
  command.AddOption("NAME", name, "Name of the database")
      .Required()
      .Check(publish::DatabaseNameProblem);
}

void Init(publish::InitRequest& request) {
  TakeInfoFilesBesideKey(request.settings);
  InitRepository(request, std::time(nullptr));
  if (!request.settings.IsSigned()) {
    PrintNote("descriptions of this repository are not signed: there is no " +
              std::string(publish::kInfoKeyName) + " with its " + publish::kInfoCertificateName +
              " beside the key; \"tolmdbpub upgrade " + request.repository +
              " --root-key KEY\" begins with it");
  }
}

void AddInit(CommandSyntax app) {
  const auto request = std::make_shared<publish::InitRequest>();
  const CommandSyntax command = app.AddCommand("init", "Make an empty repository");
  AddRepositoryOption(command, request->repository);
  command
      .AddOption(
          "--base-url",
          [request](const std::string& text) {
            request->settings.base_url = publish::ParseBaseUrl(text);
          },
          "Where devices find the public directory: http[s]://host[:port][/path]")
      .Required()
      .Check(BaseUrlProblem);
  command.AddOption("--key", request->settings.key, "Private key: a file, or an OpenSSL URI")
      .Required();
  command
      .AddOption("--cert", request->settings.certificate_path,
                 "Its certificate, and those above it")
      .Required();
  command.AddOption("--root", request->settings.root_path,
                    "Root certificate of devices; by default root.pem beside the certificate");
  command
      .AddOption("--info-version", request->settings.info_version,
                 "Version of the description's form, the last part of its path")
      .Check(publish::InfoVersionProblem);
  const CommandOption info_key =
      command.AddOption("--info-key", request->settings.info_key,
                        "Key that signs descriptions; by default info.key beside the key, if any");
  const CommandOption info_certificate =
      command.AddOption("--info-cert", request->settings.info_certificate_path,
                        "Its certificate; by default info.pem there");
  info_key.Needs(info_certificate);
  info_certificate.Needs(info_key);
  command.AddOption("--refresh-group", request->refresh_group,
                    "Group that may \"refresh\", and nothing else");
  command.OnChosen([request] { Init(*request); });
}

void AddList(CommandSyntax app) {
  const auto repository = std::make_shared<std::string>();
  const auto as_json = std::make_shared<bool>(false);
  const auto metrics = std::make_shared<MetricsRequest>();
  const CommandSyntax command = app.AddCommand("list", "Show what was released");
  AddRepositoryOption(command, *repository);
  const CommandOption json = command.AddFlag("--json", *as_json, "For programs");
  AddMetricsOptions(command, *metrics);
  command.GetOption("--metrics").Excludes(json);
  command.OnChosen([=] {
    if (!metrics->is_wanted) {
      publish::ListRepository(*repository, *as_json, std::cout);
    }
    PrintMetrics(*metrics, *repository, nullptr);
    for (const std::string& warning :
         publish::CertificateWarnings(*repository, std::time(nullptr))) {
      PrintNote(warning);
    }
  });
}

void AddPage(CommandSyntax app) {
  const auto request = std::make_shared<publish::PageRequest>();
  const CommandSyntax command =
      app.AddCommand("page", "Write a page for browsers that shows what was released");
  AddRepositoryOption(command, request->repository);
  command.AddOption("DIR", request->directory, "Where it is to be, as index.html")
      .Check([](const std::string& directory) { return directory.empty() ? "no directory" : ""; })
      .Required();
  command.AddFlag("--all", request->has_all,
                  "With all releases in its tables, and not the newest ones of each database");
  command.OnChosen([request] {
    const std::string path = publish::WritePageOf(*request, std::time(nullptr));
    std::cout << EscapeControls(path) << " is written\n";
  });
}

std::string Counted(std::uint64_t count, const std::string& one, const std::string& several) {
  return std::to_string(count) + ' ' + (count == 1 ? one : several);
}

// "3 xz, 1 zstd".
std::string CompressionsText(const std::map<std::string, std::size_t>& compressions) {
  std::string text;
  for (const auto& [compression, packages] : compressions) {
    text += (text.empty() ? "" : ", ") + std::to_string(packages) + ' ' + compression;
  }
  return text;
}

// What was looked at, and, where that is not all, what was not.
std::string CheckSummary(const publish::CheckRequest& request, const publish::CheckReport& report) {
  std::string text =
      request.quick || request.since_days ? "in order, as far as was looked: " : "in order: ";
  text += Counted(report.packages, "package", "packages");
  if (!report.compressions.empty()) {
    text += " (" + CompressionsText(report.compressions) + ')';
  }
  if (!request.quick) {
    text += ", " + Counted(report.replayed, "delta", "deltas") + " replayed";
  }
  if (report.remembered > 0) {
    text += ", " + std::to_string(report.remembered) + " as before";
  }
  if (report.together > 0) {
    text += ", " + Counted(report.together, "chain", "chains") + " replayed at once";
  }
  if (report.without_start > 0) {
    text += "; not where " + Counted(report.without_start, "delta leads", "deltas lead") +
            ", as the full package of the version before was pruned";
  }
  if (report.older_packages > 0) {
    text += "; of " + Counted(report.older_packages, "older package", "older packages") +
            " the size alone, and of no delta to an older release where it leads";
  }
  if (request.quick) {
    text += "; not whether packages can be read to their end, nor where deltas lead";
  }
  return text;
}

int Check(const publish::CheckRequest& request, const MetricsRequest& metrics) {
  publish::CheckReport report;
  {
    ProgressLine line;
    report = publish::CheckRepository(request, std::time(nullptr),
                                      [&line](const publish::Step& step) { line.Show(step); });
  }
  for (const std::string& remark : report.remarks) {
    PrintNote(remark);
  }
  for (const std::string& sentence : report.wrong) {
    PrintError(sentence);
  }
  PrintMetrics(metrics, request.repository, &report);
  if (!report.wrong.empty()) {
    return kFailure;
  }
  if (!metrics.is_wanted) {
    std::cout << CheckSummary(request, report) << '\n';
  }
  return report.certificates_need_care ? kEndsSoon : kSuccess;
}

// Keys, certificates and the root, for commands that may change them.
void AddKeyFiles(CommandSyntax command, publish::KeyFiles& files) {
  command.AddOption("--key", files.key, "From now on this private key");
  command.AddOption("--cert", files.certificate_path, "From now on this certificate");
  command.AddOption("--root", files.root_path, "From now on this root certificate");
  command.AddOption("--info-key", files.info_key, "From now on this key signs descriptions");
  command.AddOption("--info-cert", files.info_certificate_path,
                    "From now on this is that key's certificate");
}

void AddCheck(CommandSyntax app, int& status) {
  const auto request = std::make_shared<publish::CheckRequest>();
  const CommandSyntax command = app.AddCommand(
      "check", "Prove that what is served is complete, signed, and leads to the newest release");
  AddRepositoryOption(command, request->repository);
  command
      .AddOption("--min-days", request->min_days,
                 "Exit with 3 when a certificate has fewer days left; by default the setting")
      .InRange(0, publish::kMaxMinCertificateDays);
  command.AddOption("--crl", request->revocations_path,
                    "Prove that nothing offered is signed by what these lists (PEM) revoke");
  const CommandOption quick =
      command.AddFlag("--quick", request->quick,
                      "Only description, digests and signatures: no package is unpacked");
  command
      .AddOption("--since", request->since_days,
                 "Prove only what was released in the last so many days; of the rest look whether "
                 "it is there")
      .InRange(0, kMaxSinceDays);
  command.AddFlag("--again", request->again, "Replay also what was replayed before, unchanged")
      .Excludes(quick);
  request->jobs = base::DefaultJobs();
  command
      .AddOption("--jobs", request->jobs, "How many packages and databases are worked on at a time")
      .ShowDefault()
      .InRange(1, base::kMostJobs);
  const auto metrics = std::make_shared<MetricsRequest>();
  AddMetricsOptions(command, *metrics);
  const auto remote = std::make_shared<std::string>();
  const CommandOption is_remote = command.AddOption(
      "--remote", *remote,
      "Prove what is served there, as devices get it: a URL, or a remote of rclone");
  for (const char* option :
       {"--min-days", "--crl", "--since", "--again", "--jobs", "--metrics", "--metrics-file"}) {
    is_remote.Excludes(command.GetOption(option));
  }
  command.OnChosen([=, &status] {
    status = is_remote.IsGiven() ? CheckRemoteNow({request->repository, *remote, request->quick})
                                 : Check(*request, *metrics);
  });
}

void Diff(const publish::DiffRequest& request, bool of_releases, bool as_json) {
  publish::Difference difference;
  {
    ProgressLine line;
    const publish::Steps steps = [&line](const publish::Step& step) { line.Show(step); };
    difference = of_releases ? DiffReleases(request, steps)
                             : publish::DiffDirectories(request.repository, request.name, steps);
  }
  PrintDifference(difference, as_json, std::cout);
}

void AddDiff(CommandSyntax app) {
  const auto request = std::make_shared<publish::DiffRequest>();
  const auto as_json = std::make_shared<bool>(false);
  const CommandSyntax command =
      app.AddCommand("diff", "Show what changed between two releases, or between two directories");
  command.AddOption("REPO", request->repository, "Directory of the repository, or one directory")
      .Required();
  command.AddOption("NAME", request->name, "Name of the database, or another directory").Required();
  const CommandOption before =
      command.AddOption("OLD", request->old_version, "Version").InRange(0, INT_MAX);
  const CommandOption after =
      command.AddOption("NEW", request->new_version, "Version").InRange(0, INT_MAX);
  before.Needs(after);
  command.AddFlag("--json", *as_json, "For programs");
  command.OnChosen([=] { Diff(*request, before.IsGiven(), *as_json); });
}

void Prune(const publish::PruneRequest& request) {
  const publish::PruneReport report = publish::Prune(request, std::time(nullptr), PrintNote);
  for (const int version : report.versions) {
    std::cout << EscapeControls(request.name) << ' ' << version << " is retired\n";
  }
  for (const std::string& path : report.removed) {
    std::cout << EscapeControls(path) << " is removed\n";
  }
  for (const std::string& path : report.waiting) {
    std::cout << EscapeControls(path) << " stays until its grace period is over\n";
  }
}

void AddPrune(CommandSyntax app) {
  const auto request = std::make_shared<publish::PruneRequest>();
  const CommandSyntax command =
      app.AddCommand("prune", "Retire old releases and remove what is retired");
  AddRepositoryOption(command, request->repository);
  AddName(command, request->name);
  command.AddOption("--keep", request->keep, "How many of the newest releases stay")
      .Required()
      .InRange(1, INT_MAX);
  command
      .AddOption("--grace", request->grace_days,
                 "Days that a package stays after it left the description")
      .ShowDefault()
      .InRange(0, 36500);
  command.OnChosen([request] { Prune(*request); });
}

void AddDeprecate(CommandSyntax app) {
  const auto repository = std::make_shared<std::string>();
  const auto name = std::make_shared<std::string>();
  const auto undo = std::make_shared<bool>(false);
  const CommandSyntax command =
      app.AddCommand("deprecate", "Tell devices that a database is deprecated");
  AddRepositoryOption(command, *repository);
  AddName(command, *name);
  command.AddFlag("--undo", *undo, "Tell them that it is not");
  command.OnChosen([=] {
    const bool changed = publish::SetDeprecated(*repository, *name, !*undo, PrintNote);
    std::cout << EscapeControls(*name) << " is " << (changed ? "now " : "already ")
              << (*undo ? "not deprecated\n" : "deprecated\n");
  });
}

void Remove(const publish::RemoveRequest& request) {
  const int newest = publish::RemoveDatabase(request, std::time(nullptr), PrintNote);
  const std::string name = EscapeControls(request.name);
  std::cout << name << " is not offered any more; the newest version was " << newest << "\n"
            << "  devices keep what they have installed; where " << name
            << " is configured, updates of it fail, and scheduled runs then\n"
            << "  leave the server alone for a while: take it out of their databases.conf\n"
            << "  its packages stay until \"prune\" finds their grace period over\n";
}

void AddRemove(CommandSyntax app) {
  const auto request = std::make_shared<publish::RemoveRequest>();
  const CommandSyntax command = app.AddCommand("remove", "Offer a database no longer");
  AddRepositoryOption(command, request->repository);
  AddName(command, request->name);
  command.AddFlag("--yes", request->not_deprecated,
                  "Also when devices were not told before that it is deprecated");
  command.OnChosen([request] { Remove(*request); });
}

void PrintResigned(const publish::ResignReport& report) {
  const char* const packages = report.packages == 1 ? " package is" : " packages are";
  if (report.is_signed_already) {
    std::cout << "nothing to do: " << report.packages << packages << " signed with "
              << EscapeControls(report.signer.subject) << " and valid until "
              << publish::TimeText(report.signer.not_after)
              << " UTC (--force signs all the same)\n";
  } else {
    std::cout << report.packages << packages << " signed anew below " << report.part
              << ", compressed as before: " << CompressionsText(report.compressions) << '\n';
  }
}

void AddResign(CommandSyntax app) {
  const auto request = std::make_shared<publish::ResignRequest>();
  const CommandSyntax command =
      app.AddCommand("resign", "Sign everything anew, under a new part of the public directory");
  AddRepositoryOption(command, request->repository);
  AddKeyFiles(command, request->keys);
  command.GetOption("--cert").Needs(command.GetOption("--key"));
  command.AddFlag("--force", request->force, "Also when everything is signed like this already");
  command.OnChosen([request] {
    publish::ResignReport report;
    {
      ProgressLine line;
      report = publish::ResignRepository(
          *request, std::time(nullptr), [&line](const std::string& text) { line.Note(text); },
          [&line](const publish::Step& step) { line.Show(step); });
    }
    PrintResigned(report);
  });
}

std::string PercentProblem(const std::string& text) {
  try {
    publish::ParsePercent(text);
  } catch (const std::exception& error) {
    return error.what();
  }
  return {};
}

constexpr char kDefaultText[] = "default";

// What `set` is told of a repository, or of one of its databases.
struct SetRequest {
  publish::ChangeSettingsRequest all;
  publish::ChangeDatabaseSettingsRequest database;
  std::optional<std::string> max_shrink;
  bool no_revocations = false;
};

void Set(SetRequest request) {
  const bool is_default = request.max_shrink == kDefaultText;
  std::optional<int> percent;
  if (request.max_shrink && !is_default) {
    percent = publish::ParsePercent(*request.max_shrink);
  }
  if (request.no_revocations) {
    request.all.revocations_path = "";
  }
  if (request.database.name.empty()) {
    request.all.max_shrink_percent =
        is_default ? std::optional<int>(publish::kDefaultMaxShrinkPercent) : percent;
    ChangeSettings(request.all, std::time(nullptr), PrintNote);
    return;
  }
  request.database.repository = request.all.repository;
  if (request.max_shrink) {
    request.database.max_shrink_percent = percent;
  }
  ChangeDatabaseSettings(request.database, PrintNote);
}

// Options that are a whole repository's.
void AddRepositorySettings(CommandSyntax options, CommandOption name,
                           const std::shared_ptr<SetRequest>& request) {
  options
      .AddOption(
          "--base-url",
          [request](const std::string& text) {
            request->all.base_url = publish::ParseBaseUrl(text);
          },
          "Where devices find the packages from now on")
      .Check(BaseUrlProblem)
      .Excludes(name);
  options
      .AddOption("--chain-share", request->all.chain_share_percent,
                 "Percent of the full package that offered deltas may have together")
      .InRange(0, publish::kMaxChainSharePercent)
      .Excludes(name);
  options
      .AddOption("--oldest-sqlite", request->all.oldest_sqlite,
                 "The oldest SQLite that SQL scripts must run on")
      .Check(SqliteVersionProblem)
      .Excludes(name);
  options
      .AddOption("--min-certificate-days", request->all.min_certificate_days,
                 "With fewer days left of a certificate check exits with 3")
      .InRange(0, publish::kMaxMinCertificateDays)
      .Excludes(name);
  AddPackingOptions(
      options, {[request](package::CompressionChoice choice) { request->all.compression = choice; },
                [request](int mebibytes) { request->all.window_mebibytes = mebibytes; }});
  options.GetOption("--compression").Excludes(name);
  options.GetOption("--compression-window").Excludes(name);
  AddKeyFiles(options, request->all.keys);
  for (const char* option : {"--key", "--cert", "--root", "--info-key", "--info-cert"}) {
    options.GetOption(option).Excludes(name);
  }
  options
      .AddOption("--description-days", request->all.description_days,
                 "Days that a signed description is valid")
      .InRange(1, publish::kMaxDescriptionDays)
      .Excludes(name);
  const CommandOption revocations =
      options
          .AddOption("--crl", request->all.revocations_path,
                     "Revocation lists (PEM) that descriptions bring to devices")
          .Check([](const std::string& file) { return file.empty() ? "no file" : ""; })
          .Excludes(name);
  options.AddFlag("--no-crl", request->no_revocations, "Descriptions bring no revocation lists")
      .Excludes(revocations)
      .Excludes(name);
}

void AddSet(CommandSyntax app) {
  const auto request = std::make_shared<SetRequest>();
  const CommandSyntax command =
      app.AddCommand("set", "Change settings of a repository, or of one of its databases");
  AddRepositoryOption(command, request->all.repository);
  const CommandOption name =
      command.AddOption("NAME", request->database.name, "Database whose own settings they are")
          .Check(publish::DatabaseNameProblem);
  const CommandSyntax options = command.AddGroup("settings");
  AddRepositorySettings(options, name, request);
  options
      .AddOption("--max-shrink", request->max_shrink,
                 "Percent of its rows, files or bytes that a release may lose, or \"default\"")
      .Check([](const std::string& text) {
        return text == kDefaultText ? std::string() : PercentProblem(text);
      });
  options
      .AddOption("--test", request->database.test,
                 "Command that the files of a release must pass; an empty one removes it")
      .Needs(name);
  options.RequireAnOption();
  command.OnChosen([request] { Set(*request); });
}

}  // namespace

void AddRepositoryCommands(CommandSyntax app, int& status) {
  AddInit(app);
  AddList(app);
  AddPage(app);
  AddDiff(app);
  AddCheck(app, status);
  AddPrune(app);
  AddDeprecate(app);
  AddRemove(app);
  AddResign(app);
  AddSet(app);
}

}  // namespace tolm::tool
