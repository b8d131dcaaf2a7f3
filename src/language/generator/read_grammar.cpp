// Reads the grammar file: directives, option tables, productions.
#include "language/generator/grammar.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>

namespace torvale::generator {

namespace {

struct Word {
  enum Kind { name, keyword, token_class, mark, number, end } kind = end;
  std::string text;
  int line = 0;
};

[[noreturn]] void fail(int line, const std::string& what)
{
  std::cerr << "grammar line " << line << ": " << what << "\n";
  std::exit(1);
}

bool word_char(char c)
{
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$';
}

// Splits one line (or the rest of one) into words.
void split(const std::string& text, int line, std::vector<Word>& out)
{
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (std::isspace(static_cast<unsigned char>(c))) {
      ++i;
      continue;
    }
    if (c == '#') break;
    if (c == '\'') {
      const std::size_t close = text.find('\'', i + 1);
      if (close == std::string::npos) fail(line, "quote not closed");
      out.push_back({Word::keyword, text.substr(i + 1, close - i - 1), line});
      i = close + 1;
      continue;
    }
    if (c == '<') {
      const std::size_t close = text.find('>', i);
      if (close == std::string::npos) fail(line, "< not closed");
      out.push_back({Word::token_class, text.substr(i + 1, close - i - 1), line});
      i = close + 1;
      continue;
    }
    if (std::isdigit(static_cast<unsigned char>(c)) ||
        (c == '-' && i + 1 < text.size() && std::isdigit(static_cast<unsigned char>(text[i + 1])))) {
      std::size_t j = i + 1;
      while (j < text.size() && std::isdigit(static_cast<unsigned char>(text[j]))) ++j;
      out.push_back({Word::number, text.substr(i, j - i), line});
      i = j;
      continue;
    }
    if (word_char(c) || c == '%') {
      std::size_t j = i + 1;
      while (j < text.size() && word_char(text[j])) ++j;
      const std::string w = text.substr(i, j - i);
      const bool lower =
          std::any_of(w.begin(), w.end(), [](char x) { return std::islower(static_cast<unsigned char>(x)) != 0; });
      out.push_back({lower || c == '%' ? Word::name : Word::keyword, w, line});
      i = j;
      continue;
    }
    if (text.compare(i, 2, "=>") == 0) {
      out.push_back({Word::mark, "=>", line});
      i += 2;
      continue;
    }
    if (text.compare(i, 2, "..") == 0) {
      out.push_back({Word::mark, "..", line});
      i += 2;
      continue;
    }
    out.push_back({Word::mark, std::string(1, c), line});
    ++i;
  }
}

std::string trim(const std::string& s)
{
  const auto a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t");
  return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

// One option row: spellings | value | flags | default | meaning.
class OptionReader {
public:
  OptionReader(std::string text, int line) : line_(line)
  {
    std::stringstream in(text);
    for (std::string column; std::getline(in, column, '|');) columns_.push_back(trim(column));
    if (columns_.size() != 5) fail(line, "an option row has five columns");
  }
  OptionRow read()
  {
    OptionRow row;
    std::vector<Word> words;
    split(columns_[0], line_, words);
    for (const Word& w : words) row.words.push_back(w.text);
    if (row.words.empty()) fail(line_, "an option needs a spelling");
    split(columns_[1], line_, value_);
    if (is("optional")) {
      row.optional = true;
      ++at_;
    }
    if (is("flag"))
      ++at_;
    else if (is("trace"))
      row.traces = trace();
    else {
      row.values.push_back(value());
      while (is("or")) {
        ++at_;
        row.values.push_back(value());
      }
      if (is("[")) {
        ++at_;
        row.bracket.push_back(value());
        expect("]");
      }
    }
    if (at_ != value_.size()) fail(line_, "value form not understood");
    std::vector<Word> flags;
    split(columns_[2], line_, flags);
    for (const Word& w : flags) row.flags.push_back(std::stoi(w.text));
    row.initial = columns_[3];
    row.meaning = columns_[4];
    return row;
  }

private:
  bool is(const char* text) const { return at_ < value_.size() && value_[at_].text == text; }
  void expect(const char* text)
  {
    if (!is(text)) fail(line_, std::string("expected ") + text + " in the value form");
    ++at_;
  }
  int integer()
  {
    if (at_ >= value_.size() || value_[at_].kind != Word::number) fail(line_, "expected a number in the value form");
    return std::stoi(value_[at_++].text);
  }
  std::vector<int> trace()
  {
    std::vector<int> classes;
    ++at_;
    expect("(");
    while (!is(")")) classes.push_back(integer());
    expect(")");
    return classes;
  }
  OptionValue value()
  {
    OptionValue v;
    if (at_ >= value_.size()) fail(line_, "value form missing");
    v.kind = value_[at_++].text;
    if (is("(")) {
      ++at_;
      if (v.kind == "word" || v.kind == "keep")
        words(v);
      else
        limits(v);
      expect(")");
    }
    expect("@");
    v.slot = integer();
    return v;
  }
  void limits(OptionValue& v)
  {
    v.low = integer();
    v.has_low = true;
    expect("..");
    if (!is(")")) {
      v.high = integer();
      v.has_high = true;
    }
  }
  void words(OptionValue& v)
  {
    std::size_t group = 0;
    while (!is(")")) {
      if (is(":")) {
        ++at_;
        const int code = integer();
        for (; group < v.words.size(); ++group) v.words[group].second = code;
        if (is(",")) ++at_;
        continue;
      }
      v.words.push_back({value_[at_++].text, 0});
    }
  }

  int line_;
  std::vector<std::string> columns_;
  std::vector<Word> value_;
  std::size_t at_ = 0;
};

class Reader {
public:
  explicit Reader(const std::string& path)
  {
    std::ifstream in(path);
    if (!in) fail(0, "cannot read " + path);
    std::string line, table, statement;
    for (int number = 1; std::getline(in, line); ++number) {
      const std::string text = trim(line);
      if (table.empty() && text.rfind("%options", 0) == 0) {
        std::vector<Word> w;
        split(text, number, w);
        if (w.size() != 3) fail(number, "%options nonterminal STATEMENT");
        table = w[1].text;
        statement = w[2].text;
      } else if (!table.empty() && text == "%end") {
        table.clear();
      } else if (!table.empty()) {
        if (text.empty() || text[0] == '#') continue;
        OptionRow row = OptionReader(text, number).read();
        row.nonterminal = table;
        row.statement = statement;
        option_lines_.push_back(number);
        grammar_.options.push_back(std::move(row));
      } else {
        split(line, number, words_);
      }
    }
    words_.push_back({Word::end, "", 0});
  }

  Grammar read()
  {
    productions_.push_back({}); // the augmented production, filled at the end
    while (now().kind != Word::end) {
      if (now().text[0] == '%')
        directive();
      else
        rules();
    }
    for (std::size_t i = 0; i < grammar_.options.size(); ++i) option_productions(static_cast<int>(i));
    number_symbols();
    return std::move(grammar_);
  }

private:
  struct RawProduction {
    std::string left;
    std::vector<Word> right;
    int action = -1;
    int line = 0;
  };
  const Word& now() const { return words_[at_]; }
  Word take() { return words_[at_++]; }

  void directive()
  {
    const Word w = take();
    const auto line_words = [&] {
      std::vector<std::string> list;
      while (now().kind == Word::keyword || now().kind == Word::token_class) list.push_back(take().text);
      return list;
    };
    if (w.text == "%classes")
      classes_ = line_words();
    else if (w.text == "%unused")
      for (const auto& k : line_words()) keywords_.insert(k);
    else if (w.text == "%prefer_shift")
      prefer_ = line_words();
    else if (w.text == "%goal")
      goal_ = take().text;
    else if (w.text == "%action") {
      const std::string name = take().text;
      grammar_.routine_numbers[name] = std::stoi(take().text);
    } else if (w.text == "%slots") {
      const std::string statement = take().text;
      while (now().kind == Word::name && now().line == w.line && now().text[0] != '%') {
        const std::string name = take().text;
        if (now().kind != Word::number) fail(w.line, "%slots STATEMENT name number ...");
        grammar_.slots.push_back({statement, name, std::stoi(take().text)});
      }
    } else
      fail(w.line, "unknown directive " + w.text);
  }

  // left : alternative | alternative ...; ends where the next "name :" begins or a directive stands.
  void rules()
  {
    const Word left = take();
    if (left.kind != Word::name || now().text != ":") fail(left.line, "expected a rule at " + left.text);
    do {
      ++at_;
      alternative(left);
    } while (now().text == "|" && now().kind == Word::mark);
  }

  void alternative(const Word& left)
  {
    RawProduction p;
    p.left = left.text;
    p.line = now().line;
    for (;;) {
      if (now().kind == Word::end || (now().kind == Word::mark && now().text == "|") || now().text[0] == '%') {
        if (!(now().kind == Word::keyword)) break;
      }
      if (now().kind == Word::name && words_[at_ + 1].kind == Word::mark && words_[at_ + 1].text == ":") break;
      if (now().kind == Word::mark && now().text == "=>") {
        ++at_;
        p.action = action();
        break;
      }
      if (now().kind == Word::mark || now().kind == Word::number) fail(now().line, "unexpected " + now().text);
      p.right.push_back(take());
      if (p.right.back().kind == Word::keyword) keywords_.insert(p.right.back().text);
    }
    productions_.push_back(std::move(p));
  }

  int action()
  {
    SemanticAction a;
    a.routine = take().text;
    if (now().kind == Word::mark && now().text == "(") {
      ++at_;
      while (now().text != ")") {
        if (now().text == ",") ++at_;
        a.arguments.push_back(std::stoi(take().text));
      }
      ++at_;
    }
    return intern(a);
  }
  int intern(const SemanticAction& a)
  {
    const auto found = std::find(grammar_.actions.begin(), grammar_.actions.end(), a);
    if (found != grammar_.actions.end()) return static_cast<int>(found - grammar_.actions.begin());
    grammar_.actions.push_back(a);
    return static_cast<int>(grammar_.actions.size()) - 1;
  }

  void add(const std::string& left, std::vector<Word> right, int action, int line)
  {
    for (const Word& w : right)
      if (w.kind == Word::keyword) keywords_.insert(w.text);
    productions_.push_back({left, std::move(right), action, line});
  }

  // The productions of one option row. The action's arguments: row, value alternative from 1 (0: none), bracket given.
  void option_productions(int index)
  {
    const OptionRow& row = grammar_.options[static_cast<std::size_t>(index)];
    const int line = option_lines_[static_cast<std::size_t>(index)];
    const std::string base = row.nonterminal + "_" + std::to_string(index);
    for (const auto& spelling : row.words) add(base, {{Word::keyword, spelling, line}}, -1, line);
    const Word word{Word::name, base, line}, equals{Word::keyword, "=", line};
    if (row.values.empty() || row.optional) add(row.nonterminal, {word}, intern({"option", {index, 0, 0}}), line);
    for (std::size_t k = 0; k < row.values.size(); ++k) {
      const int number = static_cast<int>(k) + 1;
      const Word value = value_symbol(row.values[k], base + "_" + std::to_string(number), line);
      add(row.nonterminal, {word, equals, value}, intern({"option", {index, number, 0}}), line);
      if (row.bracket.empty()) continue;
      const Word count = value_symbol(row.bracket[0], base, line);
      add(row.nonterminal, {word, equals, value, {Word::keyword, "[", line}, count, {Word::keyword, "]", line}},
          intern({"option", {index, number, 1}}), line);
    }
  }
  Word value_symbol(const OptionValue& v, const std::string& own, int line)
  {
    if (v.kind == "word" || v.kind == "keep") {
      for (const auto& [spelling, code] : v.words)
        add(own, {{Word::keyword, spelling, line}}, v.kind == "word" ? intern({"code", {code}}) : -1, line);
      return {Word::name, own, line};
    }
    if (v.kind == "input" || v.kind == "output") return {Word::name, "data_set", line};
    if (v.kind == "name") return {Word::name, "option_name", line};
    if (v.kind == "number_or_missing" || v.kind == "count_or_missing") return {Word::name, "number_or_missing", line};
    if (v.kind == "number" || v.kind == "count" || v.kind == "integer") return {Word::name, "signed_number", line};
    fail(line, "unknown value form " + v.kind);
  }

  void number_symbols()
  {
    Grammar& g = grammar_;
    std::map<std::string, int> classes, keywords, nonterminals;
    g.names.push_back("");
    const auto add_name = [&g](std::map<std::string, int>& to, const std::string& name) {
      if (to.count(name)) return;
      to[name] = static_cast<int>(g.names.size());
      g.names.push_back(name);
    };
    for (const auto& c : classes_) add_name(classes, c);
    g.classes = static_cast<int>(classes_.size());
    for (const auto& k : keywords_) add_name(keywords, k); // a set: in ASCII order
    add_name(keywords, "$$$");
    g.terminals = g.symbols();
    for (std::size_t i = 1; i < productions_.size(); ++i) add_name(nonterminals, productions_[i].left);
    add_name(nonterminals, "goal");
    if (!nonterminals.count(goal_)) fail(0, "goal has no production");
    g.goal = nonterminals[goal_];
    std::set<std::string> used{goal_};
    for (const RawProduction& raw : productions_) {
      Production p;
      p.line = raw.line;
      p.action = raw.action;
      if (raw.left.empty()) {
        p.left = nonterminals["goal"];
        p.right = {g.terminals, g.goal};
      } else {
        p.left = nonterminals[raw.left];
        for (const Word& w : raw.right) {
          const auto& from = w.kind == Word::token_class ? classes : w.kind == Word::keyword ? keywords : nonterminals;
          const auto found = from.find(w.text);
          if (found == from.end()) fail(w.line, "no production for " + w.text);
          if (w.text != raw.left) used.insert(w.text);
          p.right.push_back(found->second);
        }
      }
      g.productions.push_back(std::move(p));
    }
    for (const auto& [name, number] : nonterminals)
      if (name != "goal" && !used.count(name)) fail(0, "nonterminal " + name + " is never used");
    g.prefer_shift.assign(g.names.size(), 0);
    for (const auto& k : prefer_) g.prefer_shift[static_cast<std::size_t>(keywords.at(k))] = 1;
  }

  Grammar grammar_;
  std::vector<Word> words_;
  std::size_t at_ = 0;
  std::vector<RawProduction> productions_;
  std::vector<int> option_lines_;
  std::vector<std::string> classes_, prefer_;
  std::set<std::string> keywords_;
  std::string goal_;
};

} // namespace

Grammar read_grammar(const std::string& path)
{
  return Reader(path).read();
}

} // namespace torvale::generator
