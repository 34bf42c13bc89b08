#ifndef TOLM_REPORT_PAGE_H_
#define TOLM_REPORT_PAGE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "report/html.h"

namespace tolm::report {

/// What stands at the top and the bottom of a page.
struct PageHead {
  std::string title;
  std::string lead;       ///< a sentence below it
  std::string made_by;    ///< the command
  std::int64_t made = 0;  ///< seconds since 1970
};

/// Classes of the page's style: what is not as it should be, and what matters less.
inline constexpr char kBad[] = "bad";
inline constexpr char kQuiet[] = "quiet";
/// What stands in a table where there is nothing to say: an en dash.
inline constexpr char kNone[] = "\xE2\x80\x93";
/// So few databases are shown opened.
inline constexpr std::size_t kFewDatabases = 3;

/// A page that is one file: it loads nothing, from nowhere, runs nothing, and says so to the
/// browser. @p fill writes what stands between head and foot: sections. The classes that it may use
/// are in page.cpp.
std::string MakePage(const PageHead& head, const std::function<void(Html&)>& fill);

/// Makes the page's file or replaces it, as ReplaceOutput() does; its mode is 0644 less the umask.
void WritePage(const std::string& path, const std::string& text);

/// A section with its heading.
class Section {
 public:
  Section(Html& html, const std::string& id, const std::string& heading);

 private:
  Html::Element element_;
};

/// Names with what is said of each: side by side, or one below the other.
class Facts {
 public:
  enum class Form { kSideBySide, kList };
  explicit Facts(Html& html, Form form = Form::kSideBySide);
  void Add(const std::string& name, const std::string& text, const char* style = "");

 private:
  Html& html_;
  Html::Element list_;
};

/// A table that is moved sideways where it is wider than the screen, not the page.
class PageTable {
 public:
  enum class Kind { kText, kNumber, kShort };  ///< short ones stay on one line
  struct Column {
    std::string heading;
    Kind kind = Kind::kText;
    bool is_dispensable = false;  ///< not shown on narrow screens
  };
  struct Cell {
    std::string text;
    std::string link = {};   ///< id of an element of this page, or empty
    const char* style = "";  ///< "bad", "quiet" or ""
  };

  /// @p name says what it is to those who cannot see it.
  PageTable(Html& html, const std::string& name, std::vector<Column> columns);
  /// As many cells as there are columns; the first one names the row.
  void Add(const std::vector<Cell>& cells);

 private:
  std::string StyleOf(std::size_t column) const;

  Html& html_;
  std::vector<Column> columns_;
  Html::Element frame_;
  Html::Element table_;
  std::optional<Html::Element> body_;
};

/// A paragraph of what somebody should look at.
void PutWarning(Html& html, const std::string& text);

}  // namespace tolm::report

#endif  // TOLM_REPORT_PAGE_H_
