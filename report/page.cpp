#include "report/page.h"

#include <utility>

#include "base/human_text.h"
#include "report/output_file.h"

namespace tolm::report {
namespace {

constexpr char kPolicy[] =
    "default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; form-action 'none'";

// Letters reach a contrast of 4.5 to 1 at least on every ground that they stand on, bars of 3 to 1.
constexpr char kStyle[] = R"css(
:root {
  color-scheme: light dark;
  --ground: #ffffff; --raised: #f4f6f9; --ink: #1b2430; --quiet: #566171; --line: #d5dbe3;
  --link: #17569b; --full: #3f73ab; --delta: #2b8563; --dim: #8290a3; --bad: #b3261e;
  --bad-ground: #fdeceb;
}
@media (prefers-color-scheme: dark) {
  :root {
    --ground: #12171d; --raised: #1a2129; --ink: #e3e8ee; --quiet: #9dabbc; --line: #313b47;
    --link: #8ab8ec; --full: #6b9fd6; --delta: #55b38e; --dim: #6d7c90; --bad: #ff9c92;
    --bad-ground: #3a1f1f;
  }
}
* { box-sizing: border-box; }
html { -webkit-text-size-adjust: 100%; }
body {
  margin: 0; background: var(--ground); color: var(--ink);
  font: 15px/1.5 system-ui, -apple-system, "Segoe UI", Roboto, "DejaVu Sans", sans-serif;
}
header, main, footer { max-width: 80rem; margin: 0 auto; padding: 0 1.25rem; }
header { padding-top: 1.75rem; }
footer { padding-top: 1rem; padding-bottom: 2rem; color: var(--quiet); font-size: 0.87rem; }
h1 { font-size: 1.6rem; line-height: 1.25; margin: 0; overflow-wrap: anywhere; }
h2 { font-size: 1.15rem; margin: 2.25rem 0 0.6rem; }
h3 { font-size: 1rem; margin: 1.25rem 0 0.4rem; }
p { margin: 0.4rem 0; max-width: 48rem; overflow-wrap: anywhere; }
.lead { color: var(--quiet); }
a { color: var(--link); }
a:focus-visible, summary:focus-visible, .scroll:focus-visible { outline: 2px solid var(--link); outline-offset: 2px; }
dl { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 19.5rem), 1fr)); gap: 0.5rem 1.5rem; margin: 0.75rem 0; }
dt { color: var(--quiet); font-size: 0.87rem; }
dd { margin: 0; overflow-wrap: anywhere; font-variant-numeric: tabular-nums; }
dl.list { grid-template-columns: minmax(0, 1fr); }
dl.list div { display: grid; grid-template-columns: minmax(0, 24rem) minmax(0, 1fr); gap: 0 1.5rem; border-bottom: 1px solid var(--line); padding-bottom: 0.4rem; }
.scroll { overflow-x: auto; margin: 0.5rem 0; }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; }
th, td { text-align: left; vertical-align: top; padding: 0.32rem 1.1rem 0.32rem 0; border-bottom: 1px solid var(--line); white-space: nowrap; }
thead th { color: var(--quiet); font-weight: 600; font-size: 0.87rem; }
tbody th { font-weight: 600; }
th:last-child, td:last-child { padding-right: 0; }
.n { text-align: right; }
.t { white-space: normal; overflow-wrap: anywhere; min-width: 9rem; }
th.t { max-width: 22rem; min-width: 8rem; }
.quiet { color: var(--quiet); }
.bad { color: var(--bad); }
.warning { background: var(--bad-ground); color: var(--bad); border-left: 3px solid var(--bad); padding: 0.4rem 0.75rem; }
details { border-top: 1px solid var(--line); }
details:last-of-type { border-bottom: 1px solid var(--line); }
summary { padding: 0.55rem 0; cursor: pointer; overflow-wrap: anywhere; }
summary b { font-weight: 600; margin-right: 0.5rem; unicode-bidi: isolate; }
details[open] { padding-bottom: 1rem; }
.pictures { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 19rem), 1fr)); gap: 1rem 2.5rem; margin: 1rem 0; }
figure { margin: 0; min-width: 0; }
figcaption { font-weight: 600; font-size: 0.87rem; margin-bottom: 0.25rem; }
.chart { display: block; margin-left: 4.1rem; width: calc(100% - 4.1rem); overflow: visible; font-size: 12px; }
.chart text { fill: var(--quiet); font-variant-numeric: tabular-nums; }
.tick { text-anchor: end; }
.grid, .axis { stroke: var(--line); }
.axis { stroke: var(--dim); }
.now { stroke: var(--ink); stroke-dasharray: 3 3; }
path.full { fill: var(--full); } path.delta { fill: var(--delta); } path.dim { fill: var(--dim); } path.bad { fill: var(--bad); }
.swatch { display: inline-block; width: 0.7rem; height: 0.7rem; margin-right: 0.4rem; border-radius: 2px; print-color-adjust: exact; -webkit-print-color-adjust: exact; }
.swatch.full { background: var(--full); } .swatch.delta { background: var(--delta); } .swatch.dim { background: var(--dim); } .swatch.bad { background: var(--bad); }
.legend { list-style: none; display: flex; flex-wrap: wrap; gap: 0.2rem 1rem; margin: 0.3rem 0 0 4.1rem; padding: 0; font-size: 0.8rem; color: var(--quiet); }
@media (max-width: 40rem) {
  header, main, footer { padding-left: 0.9rem; padding-right: 0.9rem; }
  .w { display: none; }
  th, td { padding-right: 0.7rem; }
  thead th { white-space: normal; }
  .t { min-width: 5.5rem; }
  th.t { min-width: 6rem; }
  dl, dl.list div { grid-template-columns: minmax(0, 1fr); }
}
@media print {
  :root { --ground: #ffffff; --raised: #ffffff; --ink: #000000; --quiet: #444444; --line: #bbbbbb; --link: #000000; --full: #3f73ab; --delta: #2b8563; --dim: #8290a3; --bad: #8c1d18; --bad-ground: #ffffff; }
  body { font-size: 10pt; }
  header, main, footer { max-width: none; padding-left: 0; padding-right: 0; }
  .scroll { overflow: visible; }
  table, thead th { font-size: 8.5pt; }
  th, td { padding-right: 0.6rem; }
  thead th { white-space: normal; }
  .t, th.t { min-width: 0; }
  figure, tr, dl div { break-inside: avoid; }
  h2, h3, summary { break-after: avoid; }
  a { text-decoration: none; }
}
)css";

}  // namespace

std::string MakePage(const PageHead& head, const std::function<void(Html&)>& fill) {
  Html html;
  {
    const Html::Element root(html, "html", {{"lang", "en"}});
    {
      const Html::Element part(html, "head");
      html.PutVoid("meta", {{"charset", "utf-8"}});
      html.PutVoid("meta", {{"http-equiv", "Content-Security-Policy"}, {"content", kPolicy}});
      html.PutVoid("meta",
                   {{"name", "viewport"}, {"content", "width=device-width, initial-scale=1"}});
      html.PutVoid("meta", {{"name", "referrer"}, {"content", "no-referrer"}});
      html.Put("title", head.title);
      html.Style(kStyle);
    }
    const Html::Element body(html, "body");
    {
      const Html::Element header(html, "header");
      html.Put("h1", head.title);
      html.Put("p", {{"class", "lead"}}, head.lead);
    }
    {
      const Html::Element main(html, "main");
      fill(html);
    }
    const Html::Element footer(html, "footer");
    html.Put("p", "Made by " + head.made_by + " at " + base::UtcMinutes(head.made) +
                      " UTC. All times are UTC; ages are counted from then.");
  }
  return html.Document();
}

void WritePage(const std::string& path, const std::string& text) {
  ReplaceOutput(path, text);
}

Section::Section(Html& html, const std::string& id, const std::string& heading)
    : element_(html, "section", {{"aria-labelledby", id}}) {
  html.Put("h2", {{"id", id}}, heading);
}

Facts::Facts(Html& html, Form form)
    : html_(html),
      list_(html, "dl",
            form == Form::kList ? Html::Attributes{{"class", "list"}} : Html::Attributes{}) {}

void Facts::Add(const std::string& name, const std::string& text, const char* style) {
  const Html::Element group(html_, "div");
  html_.Put("dt", name);
  const Html::Attributes attributes =
      *style == '\0' ? Html::Attributes{} : Html::Attributes{{"class", style}};
  html_.Put("dd", attributes, text);
}

PageTable::PageTable(Html& html, const std::string& name, std::vector<Column> columns)
    : html_(html),
      columns_(std::move(columns)),
      frame_(html, "div",
             {{"class", "scroll"}, {"role", "region"}, {"tabindex", "0"}, {"aria-label", name}}),
      table_(html, "table") {
  {
    const Html::Element head(html, "thead");
    const Html::Element row(html, "tr");
    for (std::size_t column = 0; column < columns_.size(); ++column) {
      html.Put("th", {{"scope", "col"}, {"class", StyleOf(column)}}, columns_[column].heading);
    }
  }
  body_.emplace(html, "tbody");
}

std::string PageTable::StyleOf(std::size_t column) const {
  constexpr const char* kStyles[] = {"t", "n", "s"};
  return kStyles[static_cast<int>(columns_[column].kind)] +
         std::string(columns_[column].is_dispensable ? " w" : "");
}

void PageTable::Add(const std::vector<Cell>& cells) {
  const Html::Element row(html_, "tr");
  for (std::size_t column = 0; column < cells.size(); ++column) {
    const Cell& cell = cells[column];
    std::string style = StyleOf(column);
    style += *cell.style == '\0' ? "" : std::string(" ") + cell.style;
    Html::Attributes attributes = {{"class", style}};
    if (column == 0) {
      attributes.push_back({"scope", "row"});
    }
    if (cell.link.empty()) {
      html_.Put(column == 0 ? "th" : "td", attributes, cell.text);
    } else {
      const Html::Element frame(html_, column == 0 ? "th" : "td", attributes);
      html_.Put("a", {{"href", '#' + cell.link}}, cell.text);
    }
  }
}

void PutWarning(Html& html, const std::string& text) {
  html.Put("p", {{"class", "warning"}}, text);
}

}  // namespace tolm::report
