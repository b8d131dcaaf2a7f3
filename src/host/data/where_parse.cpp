#include "host/data/where_nodes.h"
#include "host/values/formats.h"
#include "host/values/missing.h"
#include "host/values/text.h"
#include <initializer_list>

namespace torvale::host {

namespace {

using Node = WhereExpression::Node;
using Kind = Node::Kind;
using NodePtr = std::unique_ptr<Node>;

struct Token {
  enum class Kind { end, number, text, name, sign } kind = Kind::end;
  std::string text{}; // name, sign, or the characters of a text
  double number = 0.0;
  std::size_t at = 0; // character, from 1
};

bool name_start(char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (c & 0x80);
}
bool name_char(char c)
{
  return name_start(c) || (c >= '0' && c <= '9');
}
bool digit(char c)
{
  return c >= '0' && c <= '9';
}

// Cuts a condition into tokens. Every stretch of the text either becomes a token or is refused by name.
class Scanner {
public:
  explicit Scanner(std::string_view text) : text_(text) {}

  bool next(Token& token, std::string& problem)
  {
    while (i_ < text_.size() && (text_[i_] == ' ' || text_[i_] == '\t' || text_[i_] == '\n' || text_[i_] == '\r')) ++i_;
    token = Token{.at = i_ + 1};
    if (i_ == text_.size()) return true;
    const char c = text_[i_];
    if (c == '\'' || c == '"') return quoted(token, problem);
    if (digit(c) || (c == '.' && i_ + 1 < text_.size() && digit(text_[i_ + 1]))) return number(token, problem);
    if (c == '.') return missing_value(token);
    if (name_start(c)) return name(token);
    for (const std::string_view sign : {"**", "||", "^=", "~=", "<>", "<=", ">=", "(", ")", ",", "=",
                                        "<",  ">",  "+",  "-",  "*",  "/",  "&",  "|", "^", "~"})
      if (text_.substr(i_).starts_with(sign)) {
        token.kind = Token::Kind::sign;
        token.text = sign;
        i_ += sign.size();
        return true;
      }
    problem = "the character " + std::string(1, c) + " has no meaning here";
    return false;
  }

private:
  bool quoted(Token& token, std::string& problem)
  {
    const char quote = text_[i_++];
    token.kind = Token::Kind::text;
    for (; i_ < text_.size(); ++i_) {
      if (text_[i_] == quote && !(i_ + 1 < text_.size() && text_[i_ + 1] == quote)) {
        ++i_;
        // 'name'n is a name that need not look like one.
        const bool marked = i_ < text_.size() && (text_[i_] == 'n' || text_[i_] == 'N');
        if (marked && (i_ + 1 == text_.size() || !name_char(text_[i_ + 1]))) {
          token.kind = Token::Kind::name;
          token.number = 1.0; // never an operator word
          ++i_;
        }
        return moment(token, problem);
      }
      if (text_[i_] == quote) ++i_;
      token.text += text_[i_];
    }
    problem = "a quoted text is not closed";
    return false;
  }

  // 'text'd, 'text't and 'text'dt are dates and times.
  bool moment(Token& token, std::string& problem)
  {
    std::size_t end = i_;
    while (end < text_.size() && name_char(text_[end])) ++end;
    const std::string mark = wzstrlo(text_.substr(i_, end - i_));
    const char* const name = mark == "d" ? "DATE9." : mark == "t" ? "TIME8." : mark == "dt" ? "DATETIME18." : nullptr;
    if (token.kind != Token::Kind::text || name == nullptr) return true;
    token.number = read_value(token.text, *parse_value_format(name, problem));
    if (wzmis(token.number)) {
      problem = "'" + token.text + "'" + mark + " is no date or time";
      return false;
    }
    token.kind = Token::Kind::number;
    i_ = end;
    return true;
  }

  bool number(Token& token, std::string& problem)
  {
    std::size_t end = i_;
    while (end < text_.size() && (digit(text_[end]) || text_[end] == '.')) ++end;
    if (end < text_.size() && (text_[end] == 'e' || text_[end] == 'E')) {
      std::size_t exponent = end + 1;
      if (exponent < text_.size() && (text_[exponent] == '+' || text_[exponent] == '-')) ++exponent;
      if (exponent < text_.size() && digit(text_[exponent])) {
        end = exponent;
        while (end < text_.size() && digit(text_[end])) ++end;
      }
    }
    const auto value = parse_number(text_.substr(i_, end - i_));
    if (!value || (end < text_.size() && name_start(text_[end]))) {
      problem = "this is not a number";
      return false;
    }
    token.kind = Token::Kind::number;
    token.number = *value;
    i_ = end;
    return true;
  }

  bool missing_value(Token& token)
  {
    token.kind = Token::Kind::number;
    ++i_;
    const bool special = i_ < text_.size() && name_start(text_[i_]) && !(text_[i_] & 0x80) &&
                         (i_ + 1 == text_.size() || !name_char(text_[i_ + 1]));
    token.number = special ? special_missing(text_[i_++]) : missing;
    return true;
  }

  bool name(Token& token)
  {
    token.kind = Token::Kind::name;
    while (i_ < text_.size() && name_char(text_[i_])) token.text += text_[i_++];
    return true;
  }

  std::string_view text_;
  std::size_t i_ = 0;
};

// Recursive descent, one function per rank: OR, AND, NOT, comparison, ||, + -, * /, sign, **. As in the statement
// language, ** binds tighter than a sign before it and groups to the right.
class Parser {
public:
  explicit Parser(std::string_view text) : scanner_(text) { advance(); }

  bool angle_brackets() const { return angle_brackets_; }

  NodePtr parse(std::string& problem)
  {
    NodePtr root = ok() ? disjunction() : nullptr;
    if (ok() && token_.kind != Token::Kind::end) fail("something is left over behind the condition");
    if (ok() && root) return root;
    problem = problem_ + " (character " + std::to_string(fault_at_) + ")";
    return nullptr;
  }

private:
  bool ok() const { return problem_.empty(); }
  void advance()
  {
    std::string problem;
    if (!scanner_.next(token_, problem)) fail(problem);
  }
  NodePtr fail(std::string why)
  {
    if (ok()) {
      problem_ = std::move(why);
      fault_at_ = token_.at;
    }
    return nullptr;
  }
  bool word(std::string_view name) const
  {
    return token_.kind == Token::Kind::name && token_.number == 0.0 && equal_names(token_.text, name);
  }
  bool sign(std::string_view text) const { return token_.kind == Token::Kind::sign && token_.text == text; }
  bool take_word(std::string_view name)
  {
    if (!word(name)) return false;
    advance();
    return true;
  }
  bool take_sign(std::string_view text)
  {
    if (!sign(text)) return false;
    advance();
    return true;
  }
  static NodePtr make(Kind kind, NodePtr a, NodePtr b = nullptr, NodePtr c = nullptr)
  {
    auto node = std::make_unique<Node>();
    node->kind = kind;
    for (NodePtr* p : {&a, &b, &c})
      if (*p) node->operands.push_back(std::move(*p));
    return node;
  }

  NodePtr disjunction()
  {
    NodePtr left = conjunction();
    while (ok() && (take_word("or") || take_sign("|"))) left = make(Kind::either, std::move(left), conjunction());
    return left;
  }
  NodePtr conjunction()
  {
    NodePtr left = negation();
    while (ok() && (take_word("and") || take_sign("&"))) left = make(Kind::both, std::move(left), negation());
    return left;
  }
  NodePtr negation()
  {
    if (!(word("not") || sign("^") || sign("~"))) return comparison();
    if (++depth_ > deepest) return fail("the condition is nested too deep");
    advance();
    NodePtr inner = negation();
    --depth_;
    return inner ? make(Kind::negation, std::move(inner)) : nullptr;
  }

  bool comparison_kind(Kind& kind)
  {
    struct Row {
      std::string_view sign;
      std::string_view name;
      Kind kind;
    };
    static constexpr Row rows[] = {{"=", "eq", Kind::equal},      {"^=", "ne", Kind::not_equal},
                                   {"~=", "ne", Kind::not_equal}, {"<>", "ne", Kind::not_equal},
                                   {"<", "lt", Kind::less},       {"<=", "le", Kind::less_equal},
                                   {">", "gt", Kind::greater},    {">=", "ge", Kind::greater_equal}};
    for (const Row& row : rows)
      if (sign(row.sign) || word(row.name)) {
        kind = row.kind;
        angle_brackets_ = angle_brackets_ || sign("<>");
        advance();
        return true;
      }
    return false;
  }

  NodePtr comparison()
  {
    NodePtr left = concatenation();
    while (ok()) {
      Kind kind;
      const bool negated = word("not") || word("notin");
      if (comparison_kind(kind)) {
        left = make(kind, std::move(left), concatenation());
      } else if (negated || word("in") || word("between") || word("contains") || word("like") || word("is")) {
        if (word("not")) advance();
        left = word_comparison(std::move(left));
        if (left && negated) left = make(Kind::negation, std::move(left));
      } else {
        break;
      }
    }
    return left;
  }

  NodePtr word_comparison(NodePtr left)
  {
    if (take_word("in") || take_word("notin")) return list(std::move(left));
    if (take_word("like")) return make(Kind::like, std::move(left), concatenation());
    if (take_word("contains")) return make(Kind::contains, std::move(left), concatenation());
    if (take_word("between")) {
      NodePtr low = concatenation();
      if (!take_word("and")) return fail("AND must stand between the limits of BETWEEN");
      return make(Kind::between, std::move(left), std::move(low), concatenation());
    }
    if (take_word("is")) {
      const bool negated = take_word("not");
      if (!take_word("missing") && !take_word("null")) return fail("IS must be followed by MISSING");
      NodePtr node = make(Kind::is_missing, std::move(left));
      return negated ? make(Kind::negation, std::move(node)) : std::move(node);
    }
    return fail("NOT must be followed by IN, BETWEEN, CONTAINS or LIKE here");
  }

  NodePtr list(NodePtr left)
  {
    if (!take_sign("(")) return fail("IN must be followed by a list in parentheses");
    NodePtr node = make(Kind::in, std::move(left));
    do {
      const bool minus = take_sign("-");
      if (token_.kind != Token::Kind::number && (minus || token_.kind != Token::Kind::text))
        return fail("a list holds numbers or quoted texts");
      NodePtr item = primary();
      node->operands.push_back(minus ? make(Kind::negate, std::move(item)) : std::move(item));
      (void)take_sign(","); // commas between the values are optional
    } while (ok() && !sign(")"));
    advance();
    return node;
  }

  NodePtr concatenation()
  {
    NodePtr left = sum();
    while (ok() && take_sign("||")) left = make(Kind::concatenate, std::move(left), sum());
    return left;
  }
  NodePtr sum()
  {
    NodePtr left = product();
    while (ok() && (sign("+") || sign("-"))) {
      const Kind kind = sign("+") ? Kind::add : Kind::subtract;
      advance();
      left = make(kind, std::move(left), product());
    }
    return left;
  }
  NodePtr product()
  {
    NodePtr left = signed_value();
    while (ok() && (sign("*") || sign("/"))) {
      const Kind kind = sign("*") ? Kind::multiply : Kind::divide;
      advance();
      left = make(kind, std::move(left), signed_value());
    }
    return left;
  }
  NodePtr signed_value()
  {
    if (!sign("+") && !sign("-")) return power();
    if (++depth_ > deepest) return fail("the condition is nested too deep");
    const bool minus = sign("-");
    advance();
    NodePtr inner = signed_value();
    --depth_;
    if (!inner) return nullptr;
    return minus ? make(Kind::negate, std::move(inner)) : std::move(inner);
  }
  NodePtr power()
  {
    NodePtr base = primary();
    if (!ok() || !take_sign("**")) return base;
    if (++depth_ > deepest) return fail("the condition is nested too deep");
    NodePtr exponent = signed_value();
    --depth_;
    return make(Kind::power, std::move(base), std::move(exponent));
  }

  NodePtr primary()
  {
    auto node = std::make_unique<Node>();
    switch (token_.kind) {
    case Token::Kind::number:
      node->kind = Kind::number;
      node->number = token_.number;
      break;
    case Token::Kind::text:
      node->kind = Kind::text;
      node->text = token_.text;
      break;
    case Token::Kind::name:
      node->kind = Kind::column;
      node->text = token_.text;
      if (token_.number == 0.0) {
        advance();
        return sign("(") ? call(std::move(node)) : std::move(node);
      }
      break;
    case Token::Kind::sign:
      if (!take_sign("(")) return fail("a value is needed before " + token_.text);
      if (++depth_ > deepest) return fail("the condition is nested too deep");
      node = disjunction();
      --depth_;
      if (!sign(")")) return fail("a closing parenthesis is missing");
      break;
    case Token::Kind::end:
      return fail("the condition ends where a value is needed");
    }
    advance();
    return node;
  }

  // The arguments behind a function's name.
  NodePtr call(NodePtr node)
  {
    node->kind = Kind::function;
    node->function = find_where_function(node->text);
    if (!node->function)
      return fail("there is no function " + node->text + " here; there are " + std::string(where_function_names()));
    if (++depth_ > deepest) return fail("the condition is nested too deep");
    do {
      advance(); // the parenthesis or the comma
      node->operands.push_back(disjunction());
    } while (ok() && sign(","));
    --depth_;
    if (!ok()) return nullptr;
    if (!sign(")")) return fail("a closing parenthesis is missing");
    const auto count = static_cast<int>(node->operands.size());
    if (count < node->function->least || count > node->function->most)
      return fail(node->text + " takes " + std::to_string(node->function->least) + " to " +
                  std::to_string(node->function->most) + " arguments");
    advance();
    return node;
  }

  static constexpr int deepest = 200; // levels of parentheses, signs and powers: the stack is finite
  Scanner scanner_;
  Token token_;
  std::string problem_;
  std::size_t fault_at_ = 0;
  int depth_ = 0;
  bool angle_brackets_ = false;
};

} // namespace

std::shared_ptr<const WhereExpression> parse_where(std::string_view text, std::string& problem)
{
  constexpr std::size_t longest = 16384; // a chain of ORs is as deep as it is long
  if (text.size() > longest) {
    problem = "the condition is longer than 16384 characters; use IN lists";
    return nullptr;
  }
  Parser parser(text);
  NodePtr root = parser.parse(problem);
  return root ? std::make_shared<const WhereExpression>(std::move(root), parser.angle_brackets()) : nullptr;
}

} // namespace torvale::host
