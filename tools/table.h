#ifndef TOLM_TOOLS_TABLE_H_
#define TOLM_TOOLS_TABLE_H_

#include <cstddef>
#include <string>
#include <vector>

namespace tolm::tool {

/// Lines of the same columns that are never longer than a terminal is wide: first names are
/// shortened in their middle to kLeastOfAName columns, then whole columns are left out, then what
/// is left is cut.
class Table {
 public:
  struct Column {
    std::string heading;
    bool is_number;  ///< Stands on the right.
    /// Those with a higher number are left out earlier; 0: never.
    int dispensable;
  };
  static constexpr std::size_t kLeastOfAName = 24;

  /// The first column holds names.
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  /// As many texts as there are columns, in UTF-8 without control characters.
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  /// The heading and the rows, without blanks at their ends.
  std::vector<std::string> Lines(std::size_t width) const;

 private:
  std::size_t WidthOf(std::size_t column) const;
  std::string Line(const std::vector<std::string>& row, const std::vector<std::size_t>& shown,
                   const std::vector<std::size_t>& widths) const;

  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

/// How many columns standard output has: the terminal's; without a terminal what the environment
/// variable COLUMNS says, or 100.
std::size_t OutputColumns();

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_TABLE_H_
