// Where a database is, for programs that read it.

#include <memory>
#include <string>

#include "operation/run.h"
#include "operation/survey.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::Service;

int SayDirectory(Console& console, const Service& service, const std::string& name) {
  const operation::Installed installed = operation::ExamineInstalled(service, name);
  if (service.config->GetDatabaseConfig(name)->GetRootDirectory() != "/") {
    operation::RequireVolume(installed.volume);
  }
  console.Say(installed.directory);
  Json::Value& document = console.Document();
  document["name"] = name;
  document["directory"] = installed.directory;
  document["volume"] = installed.volume.empty() ? Json::Value() : Json::Value(installed.volume);
  document["installed"] = installed.version == operation::kNeverInstalled
                              ? Json::Value()
                              : Json::Value(installed.version);
  return kSuccess;
}

int SayDirectoryOrWhyNot(Console& console, const Service& service, const std::string& name) {
  int status = kFailure;
  console.Succeeds(name, [&] {
    try {
      status = SayDirectory(console, service, name);
    } catch (const operation::NoVolume&) {
      status = kNoVolume;
      throw;
    }
  });
  return status;
}

}  // namespace

void AddDirectory(CommandSyntax app, Choice& choice) {
  const auto name = std::make_shared<std::string>();
  AddCommand(
      app, choice, "directory", "Name the directory that holds a database's files",
      {"ls -l \"$(tolmdbud directory vendors)\""},
      [name](Console& console, const Service& service) {
        return SayDirectoryOrWhyNot(console, service, *name);
      },
      Output::kOwn, Rights::kAnyone)
      .AddOption("NAME", *name, "The database")
      .Required();
}

}  // namespace tolm::tool
