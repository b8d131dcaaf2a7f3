// Writes a highlighting grammar for editors (TextMate form, JSON) from the language's grammar: words that begin a
// statement, words of options, other words.
#include "language/generator/grammar.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>

namespace torvale::generator {

namespace {

using Words = std::set<std::string>;

// The word as it is typed; empty for signs, classes and words that no program has.
std::string typed(std::string name)
{
  while (!name.empty() && (name.back() == '$' || name.back() == '=')) name.pop_back();
  for (const char c : name)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '_') return {};
  return name.size() == 1 && name != "T" ? std::string() : name; // one letter is nearly always a variable
}

// The words that may stand first in a statement.
Words statement_words(const Grammar& g)
{
  std::vector<char> reached(g.names.size(), 0);
  for (int s = g.terminals + 1; s <= g.symbols(); ++s) {
    const std::string& name = g.names[static_cast<std::size_t>(s)];
    reached[static_cast<std::size_t>(s)] = name == "statement" || name == "torvale_statement";
  }
  for (bool changed = true; changed;) {
    changed = false;
    for (const Production& p : g.productions) {
      if (!reached[static_cast<std::size_t>(p.left)] || p.right.empty()) continue;
      char& first = reached[static_cast<std::size_t>(p.right.front())];
      changed = changed || !first;
      first = 1;
    }
  }
  Words words = {"RUN", "QUIT"};
  for (int s = g.classes + 1; s <= g.terminals; ++s)
    if (reached[static_cast<std::size_t>(s)]) words.insert(typed(g.names[static_cast<std::size_t>(s)]));
  words.erase("");
  return words;
}

// Words of the options of each statement that has some.
std::map<std::string, Words> option_words(const Grammar& g)
{
  std::map<std::string, Words> statements;
  for (const OptionRow& row : g.options) {
    Words& words = statements[row.statement];
    for (const std::string& word : row.words) words.insert(typed(word));
    for (const OptionValue& value : row.values)
      for (const auto& [word, code] : value.words) words.insert(typed(word));
    words.erase("");
  }
  return statements;
}

// "A|B|C".
std::string choice(const Words& words)
{
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : "|") + word;
  return out;
}

} // namespace

void write_highlighting(const Grammar& grammar, const std::string& path)
{
  const Words statements = statement_words(grammar);
  const auto options = option_words(grammar);
  Words others;
  for (int s = grammar.classes + 1; s < grammar.terminals; ++s) {
    const std::string word = typed(grammar.names[static_cast<std::size_t>(s)]);
    const bool option = std::any_of(options.begin(), options.end(), [&](auto& o) { return o.second.contains(word); });
    if (!word.empty() && !statements.contains(word) && !option) others.insert(word);
  }
  std::ofstream out(path);
  out << R"x({
  "name": "Torvale",
  "scopeName": "source.torvale",
  "fileTypes": ["tvl"],
  "patterns": [
    { "include": "#texts" },
)x";
  for (const auto& [statement, words] : options)
    out << R"x(    { "begin": "(?i)(?<![\\w.])()x" << statement << R"x()\\b(?!\\s*[=+\\[{])", "end": ";",
      "beginCaptures": { "1": { "name": "keyword.control.torvale" } },
      "patterns": [
        { "include": "#texts" },
        { "name": "storage.modifier.torvale", "match": "(?i)(?<![\\w.])()x"
        << choice(words) << R"x()\\b" },
        { "include": "#words" }
      ] },
)x";
  out << R"x(    { "include": "#words" }
  ],
  "repository": {
    "texts": { "patterns": [
      { "name": "comment.block.torvale", "begin": "/\\*", "end": "\\*/" },
      { "name": "comment.line.torvale", "match": "(?i)(?:^|(?<=;))\\s*(\\*|CMT\\b)[^;]*;" },
      { "name": "constant.other.date.torvale", "match": "(?i)'[^']*'(dt|d|t)\\b" },
      { "name": "variable.other.quoted.torvale", "match": "(?i)'[^']*'n\\b" },
      { "name": "string.quoted.torvale", "match": "'(''|[^'])*'|\"(\"\"|[^\"])*\"" }
    ] },
    "words": { "patterns": [
      { "name": "keyword.control.torvale", "match": "(?i)(?<![\\w.])()x"
      << choice(statements) << R"x()\\b(?!\\s*[=+\\[{])" },
      { "name": "keyword.other.torvale", "match": "(?i)(?<![\\w.])()x"
      << choice(others) << R"x()\\b(?!\\s*=)" },
      { "name": "constant.numeric.torvale", "match": "(?i)\\b\\d[0-9a-f]*x\\b|(\\b\\d+\\.?\\d*|\\.\\d+)(e[+-]?\\d+)?" },
      { "name": "constant.language.missing.torvale", "match": "(?<![\\w.])\\.[A-Z_]?(?![\\w.])" },
      { "name": "entity.name.function.torvale", "match": "\\b[A-Za-z_]\\w*(?=\\s*\\()" }
    ] }
  }
}
)x";
}

} // namespace torvale::generator
