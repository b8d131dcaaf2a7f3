#include "host/data/sqlite_table.h"
#include "host/messages/names/files.h"
#include "host/values/text.h"
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <sqlite3.h>

namespace torvale::host {

namespace {

struct CloseDatabase {
  void operator()(sqlite3* p) const { sqlite3_close_v2(p); }
};
struct FinalizeStatement {
  void operator()(sqlite3_stmt* p) const { sqlite3_finalize(p); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

Database open_database(const std::string& path, int flags, std::string& problem)
{
  sqlite3* raw = nullptr;
  const int code = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  Database database(raw);
  if (code == SQLITE_OK) {
    sqlite3_busy_timeout(raw, 5000);
    return database;
  }
  problem = raw ? sqlite3_errmsg(raw) : "no memory";
  return nullptr;
}

Statement prepare(sqlite3* database, const std::string& sql)
{
  sqlite3_stmt* raw = nullptr;
  sqlite3_prepare_v2(database, sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr);
  return Statement(raw);
}

bool execute(sqlite3* database, const std::string& sql)
{
  return sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::string quoted_name(std::string_view name)
{
  std::string out = "\"";
  for (const char c : name) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + '"';
}

std::string_view text_of(sqlite3_stmt* row, int column)
{
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
  return text ? std::string_view(text, static_cast<std::size_t>(sqlite3_column_bytes(row, column)))
              : std::string_view{};
}

// What the first pass finds out about a column: numeric while every value is a number or missing, or every value spells
// the same kind of date or time.
struct Inferred {
  ColumnKind kind = ColumnKind::numeric;
  Moment moment = Moment::none;
  bool number_seen = false;

  void take_text(std::string_view text, const std::vector<std::string>& codes)
  {
    const auto is_code = [&](const std::string& code) { return equal_names(code, text); };
    if (kind == ColumnKind::character || parse_missing(text) || is_missing_code(text)) return;
    if (std::any_of(codes.begin(), codes.end(), is_code)) return;
    const Moment found = number_seen ? Moment::none : iso_moment(text);
    if (found == Moment::none || (moment != Moment::none && moment != found)) kind = ColumnKind::character;
    moment = found;
  }
  void take_number()
  {
    number_seen = true;
    if (moment != Moment::none) kind = ColumnKind::character;
  }
};

// False when reading fails.
bool infer_kinds(sqlite3_stmt* rows, const std::vector<std::string>& codes, std::vector<Inferred>& columns)
{
  int code;
  while ((code = sqlite3_step(rows)) == SQLITE_ROW)
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const int column = static_cast<int>(i);
      const int type = sqlite3_column_type(rows, column);
      if (type == SQLITE_INTEGER || type == SQLITE_FLOAT)
        columns[i].take_number();
      else if (type != SQLITE_NULL)
        columns[i].take_text(stripped(text_of(rows, column)), codes);
    }
  sqlite3_reset(rows);
  return code == SQLITE_DONE;
}

// Returns false when the value is a whole number that a double does not hold.
bool append_value(Column& column, sqlite3_stmt* rows, int i)
{
  const int type = sqlite3_column_type(rows, i);
  bool exact = true;
  if (!column.numeric()) {
    if (type == SQLITE_FLOAT)
      column.append(shortest(sqlite3_column_double(rows, i)));
    else
      column.append(text_of(rows, i)); // integers become their digits, NULL the empty text
  } else if (type == SQLITE_INTEGER || type == SQLITE_FLOAT) {
    const double x = sqlite3_column_double(rows, i);
    column.append(x);
    // 2^63 itself is outside the integers, so the cast back is defined below it only.
    exact = type == SQLITE_FLOAT || (x < 0x1p63 && static_cast<sqlite3_int64>(x) == sqlite3_column_int64(rows, i));
  } else {
    const std::string_view spelled = stripped(text_of(rows, i));
    const auto value = parse_iso(spelled, iso_moment(spelled));
    column.append(value ? *value : parse_missing(spelled).value_or(missing));
  }
  return exact;
}

void bind_value(sqlite3_stmt* insert, int i, const Column& column, std::size_t row, Moment moment)
{
  if (!column.numeric()) {
    const std::string& text = column.text(row);
    if (text.empty())
      sqlite3_bind_null(insert, i);
    else
      sqlite3_bind_text(insert, i, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    return;
  }
  const double x = column.number(row);
  std::string spelled;
  if (!wzmis(x) && moment != Moment::none && append_iso(spelled, x, moment))
    sqlite3_bind_text(insert, i, spelled.c_str(), -1, SQLITE_TRANSIENT);
  else if (!wzmis(x))
    sqlite3_bind_double(insert, i, x);
  else if (missing_letter(x) == '.')
    sqlite3_bind_null(insert, i);
  else
    sqlite3_bind_text(insert, i, shortest(x).c_str(), -1, SQLITE_TRANSIENT);
}

bool write_rows(sqlite3* database, const DataSet& data, const std::string& table)
{
  std::string columns, marks;
  std::vector<Moment> moments;
  for (const Column& column : data.columns()) {
    moments.push_back(column.written_as());
    const bool number = column.numeric() && moments.back() == Moment::none;
    columns += (columns.empty() ? "" : ", ") + quoted_name(column.name()) + (number ? " REAL" : " TEXT");
    marks += marks.empty() ? "?" : ", ?";
  }
  if (!execute(database, "DROP TABLE IF EXISTS " + quoted_name(table))) return false;
  if (!execute(database, "CREATE TABLE " + quoted_name(table) + " (" + columns + ")")) return false;
  const Statement insert = prepare(database, "INSERT INTO " + quoted_name(table) + " VALUES (" + marks + ")");
  if (!insert) return false;
  for (std::size_t row = 0; row < data.rows(); ++row) {
    for (std::size_t i = 0; i < data.columns().size(); ++i)
      bind_value(insert.get(), static_cast<int>(i) + 1, data.columns()[i], row, moments[i]);
    if (sqlite3_step(insert.get()) != SQLITE_DONE) return false;
    sqlite3_reset(insert.get());
  }
  return true;
}

} // namespace

bool is_sqlite_file(const std::string& path)
{
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  char mark[16] = {};
  const bool read = std::fread(mark, 1, sizeof mark, file) == sizeof mark;
  std::fclose(file);
  return read && std::string_view(mark, 15) == "SQLite format 3";
}

std::vector<std::string> sqlite_tables(const std::string& path)
{
  std::vector<std::string> names;
  std::string problem;
  const Database database = open_database(path, SQLITE_OPEN_READONLY, problem);
  if (!database) return names;
  const Statement rows =
      prepare(database.get(), "SELECT name FROM sqlite_master WHERE type IN ('table','view') ORDER BY name");
  while (rows && sqlite3_step(rows.get()) == SQLITE_ROW) names.emplace_back(text_of(rows.get(), 0));
  return names;
}

std::optional<DataSet> read_sqlite(const std::string& path, const std::string& table, MessageSink& log,
                                   const ReadOptions& options)
{
  const auto refuse = [&](std::string_view reason) {
    log.xpmlog(message::database_table_not_read{.table = table, .file = path, .reason = reason});
    return std::nullopt;
  };
  std::string problem;
  const Database database = open_database(path, SQLITE_OPEN_READONLY, problem);
  if (!database) return refuse(problem);
  const Statement rows = prepare(database.get(), "SELECT * FROM " + quoted_name(table));
  if (!rows) return refuse(sqlite3_errmsg(database.get()));

  const int count = sqlite3_column_count(rows.get());
  std::vector<Inferred> inferred(static_cast<std::size_t>(count));
  if (!infer_kinds(rows.get(), options.missing, inferred)) return refuse(sqlite3_errmsg(database.get()));
  DataSet data;
  data.name = table;
  data.path = path;
  for (int i = 0; i < count; ++i) {
    std::string name(cut_name(sqlite3_column_name(rows.get(), i), DataSet::longest_name));
    if (data.find(name)) return refuse("two columns are named " + name);
    const auto asked = options.kinds.find(wzstrlo(name));
    const Inferred& found = inferred[static_cast<std::size_t>(i)];
    Column& column = data.add(Column(name, asked == options.kinds.end() ? found.kind : asked->second));
    if (column.numeric()) column.set_format(std::string(iso_format(found.moment)));
  }
  int code;
  std::vector<bool> told(static_cast<std::size_t>(count));
  while ((code = sqlite3_step(rows.get())) == SQLITE_ROW)
    for (std::size_t i = 0; i < told.size(); ++i) {
      Column& column = data.columns()[i];
      if (append_value(column, rows.get(), static_cast<int>(i)) || told[i]) continue;
      log.xpmlog(message::digits_rounded{.column = column.name(), .file = path, .row = column.rows()});
      told[i] = true;
    }
  if (code != SQLITE_DONE) return refuse(sqlite3_errmsg(database.get()));
  return data;
}

int write_sqlite(const DataSet& data, const std::string& path, const std::string& table, MessageSink& log)
{
  std::string problem;
  const Database database = open_database(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, problem);
  if (database) {
    if (execute(database.get(), "BEGIN IMMEDIATE") && write_rows(database.get(), data, table) &&
        execute(database.get(), "COMMIT"))
      return 0;
    problem = sqlite3_errmsg(database.get());
    (void)execute(database.get(), "ROLLBACK"); // nothing to do when even this fails: the transaction is not committed
  }
  log.xpmlog(message::file_not_written{.file = path + ", table " + table, .reason = problem});
  return -1;
}

} // namespace torvale::host
