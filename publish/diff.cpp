#include "publish/diff.h"

#include <json/value.h>

#include <iomanip>
#include <ostream>
#include <set>

#include "base/human_text.h"
#include "base/utf8.h"
#include "package/error.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/list.h"
#include "publish/sqlite_file.h"
#include "publish/tree.h"
#include "publish/unpack.h"

namespace tolm::publish {
namespace {

using FileKind = FileDifference::Kind;
using SchemaKind = sqldelta::SchemaChange::Kind;

constexpr int kFormat = 1;

// The kinds of changes have the same names everywhere.
template <typename Kind>
const char* KindText(Kind kind) {
  switch (kind) {
    case Kind::kNew:
      return "new";
    case Kind::kGone:
      return "gone";
    case Kind::kChanged:
      return "changed";
  }
  return "";
}

void CompareContents(const TreeFile& before, const TreeFile& after, FileDifference& file) {
  const bool was_sqlite = IsSqliteFile(before.path);
  const bool is_sqlite = IsSqliteFile(after.path);
  if (was_sqlite != is_sqlite) {
    file.note = was_sqlite ? "is no SQLite file any more" : "was no SQLite file before";
    return;
  }
  if (!is_sqlite) {
    return;
  }
  std::string problem;
  file.tables = FindSqliteChanges(before.path, after.path, problem);
  if (!file.tables) {
    file.note = "its tables cannot be compared: " + problem;
  } else if (file.tables->AreNone()) {
    file.note = HoldTheSame(before.path, after.path) ? "other bytes with the same content"
                                                     : "differs in what is not counted here";
  }
}

void CompareTrees(const Tree& before, const Tree& after, const Steps& steps,
                  Difference& difference) {
  std::set<std::string> keys;
  for (const Tree* tree : {&before, &after}) {
    for (const auto& entry : tree->files) {
      keys.insert(entry.first);
    }
  }
  std::uint64_t done = 0;
  for (const std::string& key : keys) {
    steps({"comparing", done++, keys.size()});
    const auto old_file = before.files.find(key);
    const auto new_file = after.files.find(key);
    const bool was = old_file != before.files.end();
    const bool is = new_file != after.files.end();
    if (was && is && old_file->second.sha384 == new_file->second.sha384) {
      ++difference.unchanged;
      continue;
    }
    FileDifference file;
    file.key = key;
    file.kind = !was ? FileKind::kNew : !is ? FileKind::kGone : FileKind::kChanged;
    file.old_bytes = was ? old_file->second.size_bytes : 0;
    file.new_bytes = is ? new_file->second.size_bytes : 0;
    if (was && is) {
      CompareContents(old_file->second, new_file->second, file);
    }
    difference.files.push_back(std::move(file));
  }
}

const Release& ReleaseOf(const RepositoryPaths& paths, const Catalog& catalog,
                         const std::string& name, int version) {
  RequireDatabase(paths, catalog, name);
  const Database& database = catalog.databases.at(name);
  std::string versions;
  for (const Release& release : database.releases) {
    if (release.version == version) {
      return release;
    }
    versions += (versions.empty() ? "" : ", ") + std::to_string(release.version);
  }
  const std::string end = "/" + name + "_v" + std::to_string(version);
  for (const RetiredPackage& retired : database.retired) {
    const std::string& path = retired.package.path;
    if (path.size() > end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0) {
      throw Error(name + ' ' + std::to_string(version) + " was retired on " +
                  TimeText(retired.since) + " UTC; released are " + versions);
    }
  }
  throw Error(name + ' ' + std::to_string(version) + " is not released; released are " + versions);
}

void PrintTables(const sqldelta::SqliteChanges& changes, std::ostream& out) {
  constexpr char kIndent[] = "             ";
  for (const std::string& setting : changes.settings) {
    out << kIndent << setting << '\n';
  }
  for (const sqldelta::SchemaChange& change : changes.schema) {
    out << kIndent << KindText(change.kind) << ' ' << change.type << ' '
        << base::EscapeControls(change.name) << '\n';
  }
  for (const sqldelta::TableRowChanges& rows : changes.rows) {
    out << kIndent << "rows of " << base::EscapeControls(rows.table) << ": "
        << base::Grouped(rows.added) << " added, " << base::Grouped(rows.removed) << " removed, "
        << base::Grouped(rows.changed) << " changed\n";
  }
}

void PrintTable(const Difference& difference, std::ostream& out) {
  out << base::EscapeControls(difference.name) << (difference.name.empty() ? "" : " ")
      << base::EscapeControls(difference.before) << " -> " << base::EscapeControls(difference.after)
      << '\n';
  if (!difference.files.empty()) {
    out << "  change          before         after  file\n";
  }
  for (const FileDifference& file : difference.files) {
    out << "  " << std::left << std::setw(8) << KindText(file.kind) << std::right << std::setw(14)
        << (file.kind == FileKind::kNew ? "-" : base::Grouped(file.old_bytes)) << std::setw(14)
        << (file.kind == FileKind::kGone ? "-" : base::Grouped(file.new_bytes)) << "  "
        << base::EscapeControls(file.key);
    if (!file.note.empty()) {
      out << "  (" << base::EscapeControls(file.note) << ')';
    }
    out << '\n';
    if (file.tables) {
      PrintTables(*file.tables, out);
    }
  }
  out << "  " << base::Grouped(difference.unchanged)
      << (difference.unchanged == 1 ? " file is" : " files are") << " unchanged\n";
}

Json::Value ToJson(const sqldelta::SqliteChanges& changes) {
  Json::Value value;
  value["settings"] = Json::Value(Json::arrayValue);
  value["schema"] = Json::Value(Json::arrayValue);
  value["rows"] = Json::Value(Json::arrayValue);
  for (const std::string& setting : changes.settings) {
    value["settings"].append(setting);
  }
  for (const sqldelta::SchemaChange& change : changes.schema) {
    Json::Value object;
    object["change"] = KindText(change.kind);
    object["type"] = change.type;
    object["object"] = change.name;
    value["schema"].append(object);
  }
  for (const sqldelta::TableRowChanges& rows : changes.rows) {
    Json::Value table;
    table["table"] = rows.table;
    table["added"] = Json::UInt64(rows.added);
    table["removed"] = Json::UInt64(rows.removed);
    table["changed"] = Json::UInt64(rows.changed);
    value["rows"].append(table);
  }
  return value;
}

Json::Value ToJson(const FileDifference& file) {
  Json::Value value;
  value["file"] = file.key;
  value["change"] = KindText(file.kind);
  value["old_size"] = file.kind == FileKind::kNew ? Json::Value() : Json::UInt64(file.old_bytes);
  value["new_size"] = file.kind == FileKind::kGone ? Json::Value() : Json::UInt64(file.new_bytes);
  value["sqlite"] = file.tables ? ToJson(*file.tables) : Json::Value();
  value["note"] = file.note;
  return value;
}

}  // namespace

Difference DiffReleases(const DiffRequest& request, const Steps& steps) {
  const RepositoryPaths paths(request.repository);
  const RepositoryLock lock(paths);
  const Catalog catalog = LoadCatalog(paths.CatalogFile());
  const Release& before = ReleaseOf(paths, catalog, request.name, request.old_version);
  const Release& after = ReleaseOf(paths, catalog, request.name, request.new_version);
  const auto unpack = [&](const Release& release, const char* directory) {
    steps({"unpacking", 0, 0});
    return UnpackKnown(paths.InPublic(release.full.path), release.full.sha384,
                       paths.Work() + '/' + directory);
  };
  Difference difference{
      request.name, std::to_string(before.version), std::to_string(after.version), {}, 0};
  EmptyDirectory(paths.Work());
  const Tree old_tree = unpack(before, "before");
  CompareTrees(old_tree, unpack(after, "after"), steps, difference);
  EmptyDirectory(paths.Work());
  return difference;
}

Difference DiffDirectories(const std::string& before, const std::string& after,
                           const Steps& steps) {
  steps({"reading files", 0, 0});
  Difference difference{"", before, after, {}, 0};
  const Tree old_tree = ScanTree(before);
  CompareTrees(old_tree, ScanTree(after), steps, difference);
  return difference;
}

void PrintDifference(const Difference& difference, bool as_json, std::ostream& out) {
  if (!as_json) {
    PrintTable(difference, out);
    return;
  }
  Json::Value value;
  value["format"] = kFormat;
  value["database"] = difference.name.empty() ? Json::Value() : Json::Value(difference.name);
  value["before"] = difference.before;
  value["after"] = difference.after;
  value["files"] = Json::Value(Json::arrayValue);
  for (const FileDifference& file : difference.files) {
    value["files"].append(ToJson(file));
  }
  value["unchanged"] = Json::UInt64(difference.unchanged);
  out << FormatJson(value);
}

}  // namespace tolm::publish
