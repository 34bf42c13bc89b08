#include "sqldelta/sql_text.h"

namespace tolm::sqldelta {

std::string Join(const Names& parts, const std::string& separator) {
  std::string text;
  for (const std::string& part : parts) {
    text += (text.empty() ? "" : separator) + part;
  }
  return text;
}

Names Quoted(const Names& names, const std::string& prefix) {
  Names quoted;
  for (const std::string& name : names) {
    quoted.push_back(prefix + QuoteName(name));
  }
  return quoted;
}

Names Numbered(const std::string& letter, std::size_t count) {
  Names names;
  for (std::size_t i = 1; i <= count; ++i) {
    names.push_back(letter + std::to_string(i));
  }
  return names;
}

Names Concatenated(Names first, const Names& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::vector<Names> Grouped(const Names& names) {
  constexpr std::size_t kNamesInAGroup = 100;
  std::vector<Names> groups;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i % kNamesInAGroup == 0) {
      groups.emplace_back();
    }
    groups.back().push_back(names[i]);
  }
  return groups;
}

std::string InMain(const std::string& table) {
  return "main." + QuoteName(table);
}

Names AllOf(const TableLayout& table) {
  return Concatenated(table.keys, table.columns);
}

std::string Literals(const SqliteRows& rows, int first, int count) {
  Names literals;
  for (int i = first; i < first + count; ++i) {
    literals.push_back(Literal(rows.Value(i)));
  }
  return Join(literals, ",");
}

std::int64_t BytesOf(const SqliteRows& rows, int first, int count) {
  constexpr std::int64_t kBytesOfANumber = 8;
  std::int64_t bytes = 0;
  for (int i = first; i < first + count; ++i) {
    bytes += kBytesOfANumber + rows.Bytes(i);
  }
  return bytes;
}

}  // namespace tolm::sqldelta
