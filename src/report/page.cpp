#include "report/page.h"

#include "graphics/canvas.h"
#include "host/values/text.h"
#include "host/writers/table_writers.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace torvale::report {

using graphics::escaped;
using host::FitSummary;
using host::GroupResult;
using host::RunResults;
using host::StepResult;
using host::Table;

namespace {

constexpr std::size_t shown_rows = 400;       // of one table; the rest is in the results
constexpr std::size_t most_groups_drawn = 12; // groups with pictures in the page

// Tables that stand at the head of a group; the others follow the pictures in the order written.
constexpr std::array<std::string_view, 2> head_tables = {"ParameterEstimates", "FitStatistics"};
constexpr std::string_view verdict_table = "FitVerdict"; // shown as the verdict itself

std::string plural(std::size_t count, std::string_view word)
{
  return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

std::string_view standing_class(const FitSummary& fit)
{
  return fit.standing == FitSummary::Standing::good      ? "good"
         : fit.standing == FitSummary::Standing::caution ? "caution"
                                                         : "bad";
}

std::string_view standing_mark(const FitSummary& fit)
{
  return fit.standing == FitSummary::Standing::good ? "✓" : fit.standing == FitSummary::Standing::caution ? "!" : "✕";
}

// The page as it grows, and its contents list.
class Page {
public:
  explicit Page(const RunResults& results) : results_(results) {}

  std::string text()
  {
    for (std::size_t i = 0; i < results_.steps.size(); ++i) step(i);
    program();
    return fmt::format(
               "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
               "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">\n<title>{}</title>\n"
               "<link rel=\"icon\" href=\"data:,\">\n<style>\n{}\n</style>\n</head>\n<body>\n<div class=\"page\">\n",
               escaped(results_.program), page_style()) +
           header() + "<nav aria-label=\"Contents\"><p>Contents</p>\n<ol>\n" + contents_ + "</ol>\n</nav>\n<main>\n" +
           body_ +
           fmt::format("</main>\n<footer>Torvale {}</footer>\n</div>\n</body>\n</html>\n", escaped(results_.version));
  }

private:
  std::string header() const
  {
    std::size_t groups = 0;
    for (const StepResult& step : results_.steps) groups += step.groups.size();
    std::string facts = plural(results_.steps.size(), "step");
    if (groups > results_.steps.size()) facts += ", " + plural(groups, "BY group");
    return fmt::format(
        "<header>\n<p class=\"kicker\">Torvale report</p>\n<h1>{}</h1>\n<p class=\"facts\">{}</p>\n</header>\n",
        escaped(results_.program), facts);
  }

  void entry(const std::string& id, std::string_view words)
  {
    contents_ += fmt::format("<li><a href=\"#{}\">{}</a></li>\n", id, escaped(words));
  }
  void open_level(const std::string& id, std::string_view words)
  {
    contents_ += fmt::format("<li><a href=\"#{}\">{}</a>\n<ol>\n", id, escaped(words));
  }
  void close_level() { contents_ += "</ol></li>\n"; }

  void heading(int level, const std::string& id, std::string_view words)
  {
    body_ += fmt::format("<h{0} id=\"{1}\">{2}</h{0}>\n", level, id, escaped(words));
  }

  void step(std::size_t i)
  {
    const StepResult& step = results_.steps[i];
    const std::string id = fmt::format("step{}", i + 1);
    const bool several = results_.steps.size() > 1;
    body_ += fmt::format("<section id=\"{}\">\n", id);
    if (several) {
      open_level(id, fmt::format("Step {}", i + 1));
      body_ += fmt::format("<h2>Step {}</h2>\n", i + 1);
    }
    data_line(step);
    if (step.groups.size() > 1) overview(step, id);
    for (std::size_t g = 0; g < step.groups.size(); ++g) group(step.groups[g], fmt::format("{}-group{}", id, g + 1));
    messages(step, id);
    listings(step, id);
    data_sets(step, id);
    if (several) close_level();
    body_ += "</section>\n";
  }

  void data_line(const StepResult& step)
  {
    const host::DataSource& d = step.data;
    if (d.name.empty()) return;
    std::string words =
        fmt::format("Data {}: {}, {}", escaped(d.name), plural(d.rows, "row"), plural(d.variables, "variable"));
    if (!d.path.empty() && d.path != d.name) words += fmt::format(", file {}", escaped(d.path));
    if (!d.sha256.empty())
      words += fmt::format(", SHA-256 <span title=\"{0}\">{1}…</span>", d.sha256, d.sha256.substr(0, 16));
    if (step.seed) words += fmt::format(", seed {}", *step.seed);
    body_ += fmt::format("<p class=\"facts\">{}</p>\n", words);
  }

  // All BY groups at a glance.
  void overview(const StepResult& step, const std::string& id)
  {
    entry(id + "-overview", "BY groups");
    heading(3, id + "-overview", "BY groups");
    body_ += "<div class=\"wide\"><table><thead><tr><th class=\"t\">Group</th><th class=\"t\">Verdict</th>"
             "<th>-2 Log Likelihood</th></tr></thead><tbody>\n";
    for (std::size_t g = 0; g < step.groups.size(); ++g) {
      const GroupResult& group = step.groups[g];
      double value = host::missing;
      for (const auto& [key, cell] : group.fit.figures)
        if (key == "minus2_log_likelihood") value = cell.as_number();
      body_ += fmt::format(
          "<tr><td class=\"t\"><a href=\"#{}-group{}\">{}</a></td><td class=\"t {}\"><span class=\"mark\">{}</span>{}"
          "</td><td>{}</td></tr>\n",
          id, g + 1, escaped(host::by_text(group.by)), group.fit.present ? standing_class(group.fit) : "bad",
          group.fit.present ? standing_mark(group.fit) : "✕",
          group.fit.present ? escaped(group.fit.headline) : "There is no fit.",
          host::format_number(value, host::parse_format("12.2")));
    }
    body_ += "</tbody></table></div>\n";
  }

  void group(const GroupResult& group, const std::string& id)
  {
    const bool named = !group.by.empty();
    const std::string name = named ? host::by_text(group.by) : std::string("Fit");
    body_ += fmt::format("<section id=\"{}\">\n", id);
    open_level(id, name);
    if (named) body_ += fmt::format("<h2>{}</h2>\n", escaped(name));
    verdict(group.fit, id);
    head(group, id);
    pictures(group, id);
    other_tables(group, id);
    close_level();
    body_ += "</section>\n";
  }

  void verdict(const FitSummary& fit, const std::string& id)
  {
    if (!fit.present) return;
    entry(id + "-verdict", "Verdict");
    body_ += fmt::format("<div class=\"verdict {}\" id=\"{}-verdict\">\n<p class=\"headline\"><span class=\"mark\" "
                         "aria-hidden=\"true\">{}</span>{}</p>\n<dl>\n",
                         standing_class(fit), id, standing_mark(fit), escaped(fit.headline));
    for (const auto& [item, finding] : fit.findings)
      body_ += fmt::format("<dt>{}</dt><dd>{}</dd>\n", escaped(item), escaped(finding));
    body_ += "</dl>\n</div>\n";
  }

  void head(const GroupResult& group, const std::string& id)
  {
    std::string tables;
    for (const std::string_view name : head_tables)
      for (const Table& table : group.tables)
        if (table.name == name) {
          tables += fmt::format("<div>{}</div>\n", html_text(table, fmt::format("{}-{}", id, table.name)));
          entry(fmt::format("{}-{}", id, table.name), table.label);
        }
    if (!tables.empty()) body_ += "<div class=\"side\">\n" + tables + "</div>\n";
  }

  void pictures(const GroupResult& group, const std::string& id)
  {
    if (group.pictures.empty()) return;
    if (++groups_drawn_ > most_groups_drawn) {
      body_ += "<p class=\"more\">Pictures of this group are left out to keep the page small; --figures writes them "
               "all.</p>\n";
      return;
    }
    heading(3, id + "-pictures", "Pictures");
    entry(id + "-pictures", "Pictures");
    body_ += "<div class=\"pictures\">\n";
    for (const host::Figure& figure : group.pictures) {
      // Wide pictures take the whole row.
      const bool full = figure.svg.find("viewBox=\"0 0 960 ") != std::string::npos;
      body_ += fmt::format(
          "<figure id=\"{}-{}\"{}>\n<div class=\"wide\">{}</div><figcaption><b>{}.</b> {}</figcaption>\n</figure>\n",
          id, figure.name, full ? " class=\"full\"" : "", figure.svg, escaped(figure.title), escaped(figure.caption));
    }
    body_ += "</div>\n";
  }

  void other_tables(const GroupResult& group, const std::string& id)
  {
    std::string tables, list;
    std::vector<std::pair<std::string, int>> used; // names written so far, and how often
    for (const Table& table : group.tables) {
      if (table.name == verdict_table ||
          std::find(head_tables.begin(), head_tables.end(), table.name) != head_tables.end())
        continue;
      auto at = std::find_if(used.begin(), used.end(), [&](const auto& u) { return u.first == table.name; });
      if (at == used.end()) at = used.insert(used.end(), {table.name, 0});
      const std::string table_id =
          fmt::format("{}-{}{}", id, table.name, ++at->second > 1 ? std::to_string(at->second) : "");
      tables += html_text(table, table_id);
      list += fmt::format("<li><a href=\"#{}\">{}</a></li>\n", table_id, escaped(table.label));
    }
    if (tables.empty()) return;
    heading(3, id + "-tables", "Tables");
    contents_ += fmt::format("<li><a href=\"#{}-tables\">Tables</a>\n<ol>\n{}</ol></li>\n", id, list);
    body_ += tables;
  }

  void messages(const StepResult& step, const std::string& id)
  {
    if (step.messages.empty()) return;
    heading(3, id + "-messages", "Messages");
    entry(id + "-messages", "Messages");
    body_ += "<ul class=\"messages\">\n";
    for (const host::Message& m : step.messages) {
      std::string by;
      if (m.by_group >= 0 && static_cast<std::size_t>(m.by_group) < step.groups.size())
        by = host::by_text(step.groups[static_cast<std::size_t>(m.by_group)].by);
      std::string severity(host::severity_name(m.severity));
      severity[0] = static_cast<char>(severity[0] - 'a' + 'A');
      body_ += fmt::format("<li class=\"{}\"><b>{}</b>{}{} {}<span class=\"code\">{}/{}</span>{}</li>\n",
                           host::severity_name(m.severity), severity, by.empty() ? "" : " · ", escaped(by),
                           escaped(m.text), m.group, m.number, source_line(m));
    }
    body_ += "</ul>\n";
  }

  // The line that a message is about, with a caret below the column; a link into the program where it stands there.
  std::string source_line(const host::Message& m) const
  {
    if (m.line <= 0 || m.source.empty() || m.severity == host::Severity::note) return {};
    std::string place = escaped(fmt::format("{}:{}", m.file, m.line));
    if (m.file == results_.program) place = fmt::format("<a href=\"#line{}\">{}</a>", m.line, place);
    std::string lines = escaped(m.source);
    if (m.column > 0) lines += "\n" + std::string(static_cast<std::size_t>(m.column - 1), ' ') + "^";
    return fmt::format("<pre>{}\n{}</pre>", place, lines);
  }

  void listings(const StepResult& step, const std::string& id)
  {
    for (std::size_t i = 0; i < step.listings.size(); ++i) {
      const std::string place = fmt::format("{}-listing{}", id, i + 1);
      heading(3, place, step.listings[i].title);
      entry(place, step.listings[i].title);
      body_ += fmt::format("<pre>{}</pre>\n", escaped(step.listings[i].text));
    }
  }

  void data_sets(const StepResult& step, const std::string& id)
  {
    if (step.data_sets.empty()) return;
    heading(3, id + "-output", "Output data sets");
    entry(id + "-output", "Output data sets");
    body_ += "<ul class=\"messages\">\n";
    for (const host::DataSetResult& set : step.data_sets)
      body_ +=
          fmt::format("<li><b>{}</b>, {}, {}</li>\n", escaped(set.name), plural(set.rows, "row"), escaped(set.path));
    body_ += "</ul>\n";
  }

  void program()
  {
    if (results_.source.empty()) return;
    body_ += "<section>\n";
    heading(3, "program", "Program");
    entry("program", "Program");
    body_ += "<pre class=\"program\">";
    std::string_view rest = results_.source;
    for (int number = 1; !rest.empty(); ++number) {
      const std::size_t end = std::min(rest.find('\n'), rest.size());
      std::string_view line = rest.substr(0, end);
      if (line.ends_with('\r')) line.remove_suffix(1);
      body_ += fmt::format("<span id=\"line{}\">{}</span>", number, escaped(line));
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    body_ += "</pre>\n</section>\n";
  }

  const RunResults& results_;
  std::string contents_, body_;
  std::size_t groups_drawn_ = 0;
};

} // namespace

namespace {

// Blanks behind a number, which keep the points of a column below each other, as blanks of a digit's width (and of a
// point's, where the number has none).
std::string padded_number(std::string text)
{
  const std::size_t end = text.find_last_not_of(' ') + 1;
  if (end == text.size() || end == 0) return text;
  std::size_t blanks = text.size() - end;
  const bool point = text.find('.') != std::string::npos;
  text.resize(end);
  if (!point) {
    text += "\u2008";
    --blanks;
  }
  for (; blanks > 0; --blanks) text += "\u2007";
  return text;
}

} // namespace

std::string html_text(const Table& table, std::string_view id)
{
  std::string out = fmt::format("<div class=\"wide\"><table id=\"{}\">\n<caption>{}</caption>\n<thead><tr>",
                                escaped(id), escaped(table.title.empty() ? table.label : table.title));
  std::vector<std::vector<std::string>> cells;
  const auto css = [&](std::size_t i) { return table.columns[i].kind == host::CellKind::text ? " class=\"t\"" : ""; };
  for (std::size_t i = 0; i < table.columns.size(); ++i) {
    out += fmt::format("<th{}>{}</th>", css(i), escaped(host::column_heading(table, table.columns[i])));
    cells.push_back(host::formatted_cells(table, i));
  }
  out += "</tr></thead>\n<tbody>\n";
  const std::size_t rows = table.rows().size(), shown = rows > shown_rows + 20 ? shown_rows : rows;
  for (std::size_t row = 0; row < shown; ++row) {
    out += "<tr>";
    for (std::size_t i = 0; i < cells.size(); ++i)
      out += fmt::format("<td{}>{}</td>", css(i), padded_number(escaped(cells[i][row])));
    out += "</tr>\n";
  }
  out += "</tbody></table></div>\n";
  if (shown < rows) out += fmt::format("<p class=\"more\">{} more rows stand in the results.</p>\n", rows - shown);
  return out;
}

std::string report_page(const RunResults& results)
{
  return Page(results).text();
}

} // namespace torvale::report
