#include "host/data/csv_columns.h"
#include "host/data/csv_fields.h"
#include "host/data/csv_number.h"
#include "host/values/text.h"
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace torvale::host {

namespace {

using Kind = ColumnRequest::Kind;
using Type = BlockColumn::Type;

// The texts of one column in one block as codes in order of appearance, which go to `column`.
class TextCodes {
public:
  void take(BlockColumn& column, std::string_view text)
  {
    Recent& recent = recent_[place_of(text)];
    if (recent.text != text || recent.code == none) recent = find(column, text);
    column.codes.push_back(recent.code);
  }

private:
  static constexpr std::uint32_t none = static_cast<std::uint32_t>(-1);
  struct Recent {
    std::string_view text{};
    std::uint32_t code = none;
  };

  Recent find(BlockColumn& column, std::string_view text)
  {
    if (const auto known = codes_.find(text); known != codes_.end()) return {known->first, known->second};
    const auto code = static_cast<std::uint32_t>(column.dictionary.size());
    column.dictionary.emplace_back(text); // a deque: the views stay good
    codes_.emplace(column.dictionary.back(), code);
    return {column.dictionary.back(), code};
  }

  // Most texts (treatments, subjects) come again soon: then one look suffices.
  static std::size_t place_of(std::string_view text)
  {
    std::uint64_t key = text.size();
    if (text.size() >= 8)
      key += digits::load(text.data()) ^ (digits::load(text.data() + text.size() - 8) >> 7);
    else
      for (const char c : text) key = (key << 8) + static_cast<unsigned char>(c);
    return static_cast<std::size_t>(key * 0x9E3779B97F4A7C15U >> 58);
  }

  std::unordered_map<std::string_view, std::uint32_t> codes_; // looked up, never walked
  std::array<Recent, 64> recent_{};
};

// One block on its way into columns.
class BlockReader {
public:
  BlockReader(const CsvBlock& block, const CsvDialect& dialect, const std::vector<ColumnRequest>& requests,
              BlockValues& out)
      : fields_(block, dialect.separator), dialect_(dialect), requests_(requests), out_(out),
        plain_numbers_(dialect.points && dialect.code_numbers.empty())
  {
    std::vector<BlockColumn> columns = std::move(out.columns); // their room is used again
    columns.resize(requests.size());
    for (BlockColumn& column : columns) {
      BlockColumn cleared;
      cleared.numbers.swap(column.numbers);
      cleared.codes.swap(column.codes);
      cleared.numbers.clear();
      cleared.codes.clear();
      column = std::move(cleared);
    }
    out = BlockValues{};
    out.columns = std::move(columns);
    texts_.resize(requests.size());
    spoiled_.resize(requests.size());
    for (std::size_t i = 0; i < requests.size(); ++i)
      if (requests[i].kind == Kind::character) out_.columns[i].type = Type::text;
  }

  void read()
  {
    while (fields_.next_record()) {
      record_line_ = fields_.lines();
      ++out_.rows;
      if (!record()) break;
    }
    out_.lines = fields_.lines();
  }

  bool mixed() const { return mixed_; }
  std::vector<ColumnRequest> requests_again() const
  {
    std::vector<ColumnRequest> again(requests_.size(), ColumnRequest{Kind::skip});
    for (std::size_t i = 0; i < again.size(); ++i)
      if (spoiled_[i]) again[i].kind = Kind::character;
    return again;
  }

private:
  bool fail(CsvFault fault, std::size_t field)
  {
    out_.fault = fault;
    out_.fault_line = record_line_;
    out_.fault_row = out_.rows;
    out_.fault_field = field;
    return false;
  }

  bool record()
  {
    const std::size_t count = requests_.size();
    std::size_t i = 0;
    do {
      if (i < count && plain_field(i)) continue;
      if (!written_field(i)) return false;
    } while (++i, fields_.next_field());
    out_.fields_found = i;
    return i == count ? true : fail(CsvFault::wrong_count, i);
  }

  // The field at hand if it is a number, perhaps in quotes, or nothing, written as nearly all are, in a column that is
  // no other.
  bool plain_field(std::size_t i)
  {
    BlockColumn& column = out_.columns[i];
    const Kind kind = requests_[i].kind;
    if (column.type > Type::number || (kind != Kind::any && kind != Kind::numeric) || !plain_numbers_) return false;
    const char* const begin = fields_.at();
    const bool quoted = *begin == '"';
    const PlainNumber n = quoted ? plain_number(begin + 1, '"') : plain_number(begin, fields_.separator());
    if (!n.end) {
      if (!ends_at(begin)) return false;
      column.numbers.push_back(missing);
      return true;
    }
    if (quoted && (*n.end != '"' || !ends_at(n.end + 1))) return false;
    fields_.move_to(n.end + (quoted ? 1 : 0));
    column.type = Type::number;
    column.point = column.point || n.point;
    if (n.leading_zero && column.leading_zero_row == 0) column.leading_zero_row = out_.rows;
    column.numbers.push_back(n.value);
    return true;
  }

  bool ends_at(const char* p) const { return *p == fields_.separator() || fields_.at_line_end(p); }

  // The field at hand, whatever it is; one too many is passed over. False: a fault.
  bool written_field(std::size_t i)
  {
    std::string_view text;
    bool quoted = false;
    if (const CsvFault fault = fields_.take(text, quoted); fault != CsvFault::none) return fail(fault, i + 1);
    if (i >= requests_.size() || requests_[i].kind == Kind::skip || spoiled_[i]) return true;
    BlockColumn& column = out_.columns[i];
    if (column.type == Type::text || !take_value(column, stripped(text), requests_[i].kind)) take_text(i, text, quoted);
    return true;
  }

  void take_text(std::size_t i, std::string_view text, bool quoted)
  {
    BlockColumn& column = out_.columns[i];
    if (column.type != Type::text && !become_text(i)) return;
    if (!quoted) text = stripped(text);
    text = text.substr(0, std::min(text.find_last_not_of(' ') + 1, text.size()));
    texts_[i].take(column, text == "." ? std::string_view{} : text);
  }

  // The first field that is no number: fine when only missing values stand above it; else this block is read again for
  // the spellings of all fields of the column.
  bool become_text(std::size_t i)
  {
    BlockColumn& column = out_.columns[i];
    const std::size_t above = column.numbers.size();
    const bool plain = column.type == Type::none && column.only_plain_missing;
    column = BlockColumn{};
    column.type = Type::text;
    for (std::size_t row = 0; plain && row < above; ++row) texts_[i].take(column, {});
    spoiled_[i] = !plain;
    mixed_ = mixed_ || !plain;
    return plain;
  }

  // A field without blanks around it, in a column that is not known to be text. False when it makes it one.
  bool take_value(BlockColumn& column, std::string_view field, Kind kind)
  {
    if (const auto none = parse_missing(field)) {
      column.only_plain_missing = column.only_plain_missing && missing_letter(*none) == '.';
      column.numbers.push_back(*none);
      return true;
    }
    if (dialect_.is_code(field)) return take_code(column, field);
    const bool asked = kind == Kind::numeric;
    if (const auto value = column.type == Type::moment && !asked ? std::nullopt : dialect_.number(field)) {
      column.type = Type::number;
      note_number(column, field, *value);
      column.numbers.push_back(*value);
      return true;
    }
    const Moment moment = column.type == Type::moment && !asked ? column.moment : iso_moment(field);
    if (const auto value = column.type == Type::number && !asked ? std::nullopt : parse_iso(field, moment)) {
      if (column.type == Type::none) column.type = Type::moment;
      column.moment = moment;
      column.numbers.push_back(*value);
      return true;
    }
    if (!asked) return false;
    const bool infinite = field == "inf" || field == "-inf";
    if (!infinite) return take_code(column, field);
    column.type = Type::number;
    column.numbers.push_back(field[0] == '-' ? -HUGE_VAL : HUGE_VAL);
    return true;
  }

  bool take_code(BlockColumn& column, std::string_view field)
  {
    if (column.code_row == 0) {
      column.code = field;
      column.code_row = out_.rows;
    }
    ++column.code_count;
    column.only_plain_missing = false;
    column.numbers.push_back(missing);
    return true;
  }

  void note_number(BlockColumn& column, std::string_view spelled, double value)
  {
    column.point = column.point || spelled.find('.') != std::string_view::npos;
    column.comma = column.comma || spelled.find(',') != std::string_view::npos;
    const std::string_view digits = spelled.substr(spelled[0] == '+' || spelled[0] == '-' ? 1 : 0);
    if (digits.find_first_not_of("0123456789") != std::string_view::npos) return;
    if (digits.size() > 1 && digits.front() == '0' && column.leading_zero_row == 0) column.leading_zero_row = out_.rows;
    if (digits.size() > 15 && column.inexact_row == 0) {
      char exact[400];
      const auto end = std::to_chars(exact, exact + sizeof exact, std::fabs(value), std::chars_format::fixed, 0).ptr;
      const std::size_t first = std::min(digits.find_first_not_of('0'), digits.size());
      if (std::string_view(exact, static_cast<std::size_t>(end - exact)) != digits.substr(first))
        column.inexact_row = out_.rows;
    }
  }

  CsvFields fields_;
  const CsvDialect& dialect_;
  const std::vector<ColumnRequest>& requests_;
  BlockValues& out_;
  const bool plain_numbers_; // numbers with points, and none of them is a missing code
  std::vector<TextCodes> texts_;
  std::vector<bool> spoiled_; // columns that must be read again
  std::int64_t record_line_ = 0;
  bool mixed_ = false;
};

} // namespace

void read_block(const CsvBlock& block, const CsvDialect& dialect, const std::vector<ColumnRequest>& requests,
                BlockValues& values)
{
  BlockReader reader(block, dialect, requests, values);
  reader.read();
  if (!reader.mixed() || values.fault != CsvFault::none) return;
  const std::vector<ColumnRequest> again = reader.requests_again();
  BlockValues texts;
  BlockReader(block, dialect, again, texts).read();
  for (std::size_t i = 0; i < again.size(); ++i)
    if (again[i].kind == Kind::character) values.columns[i] = std::move(texts.columns[i]);
}

} // namespace torvale::host
