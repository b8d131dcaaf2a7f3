#include "run/statements/model_generator.h"

#include "host/values/text.h"

namespace torvale::run {

namespace {

// Fills %1, %2, ... of a line with texts.
std::string filled(std::string line, std::initializer_list<double> numbers)
{
  int k = 1;
  for (const double x : numbers) {
    const std::string mark = "%" + std::to_string(k++);
    for (std::size_t at; (at = line.find(mark)) != std::string::npos;) line.replace(at, mark.size(), host::shortest(x));
  }
  return line;
}

constexpr double eps = 1.110223024625157e-16; // smallest accepted probability or positive argument
constexpr double one_minus_eps = 1.0 - eps;   // largest accepted probability
constexpr double big = 1.3407807929943e+154;  // largest residual or mean
constexpr double negbig = -1e+20;             // log likelihood of an impossible observation
constexpr double log2pi = 1.8378770664093456;
constexpr double pi = 3.141592653589793;

using Lines = std::vector<std::string>;

Lines normal(double singvar)
{
  return {"_resid = _y - _arg1; _var = _arg2;",
          filled("if (abs(_resid) > %1) or (_var < %2) then _ll = %3;", {big, singvar, negbig}),
          filled("else _ll = -0.5*(%1 + _resid**2 / _var + log(_var));", {log2pi})};
}

Lines student(double singvar)
{
  return {"_resid = _y - _arg1; _var = _arg2;",
          "_df = _arg3; _df2 = 0.5*(1 + _df);",
          filled("if (abs(_resid)>%1) or (_var<%2) or (_df<=0) then _ll = %3;", {big, singvar, negbig}),
          "else do;",
          filled("_lc = lgammaratio(0.5*_df, 0.5) - log(%1 * _df)/2;", {pi}),
          "_ll = _lc-_df2*log(1+_resid**2/(_var*_df)) - log(_var)/2;",
          "end;"};
}

Lines binary()
{
  return {filled("_r = _y; _p = _arg1; if (_r<0) or (_r>1) then _ll = %1;", {negbig}),
          filled("else if ((_r>0) and (_p<=%1)) then _ll = %2;", {eps, negbig}),
          filled("else if ((_r<1) and (_p>=%1)) then _ll = %2;", {one_minus_eps, negbig}),
          "else do; _ll = 0; if (_r > 0) then _ll = _ll + _r*log(_p);",
          "if (_r < 1) then _ll = _ll + (1-_r)*log(1-_p); end;"};
}

Lines binomial()
{
  return {"_r = _y; _m = _arg1-_r; _p = _arg2;",
          filled("if (_r<0) or (_m<0) then _ll = %1;", {negbig}),
          filled("else if ((_r>0) and (_p<=%1)) then _ll = %2;", {eps, negbig}),
          filled("else if ((_m>0) and (_p>=%1)) then _ll = %2;", {one_minus_eps, negbig}),
          "else do;",
          "_lc = lgamma(1+_r+_m) - lgamma(1+_r) - lgamma(1+_m);",
          "_ll = _lc; if (_r > 0) then _ll = _ll + _r*log(_p);",
          "if (_m > 0) then _ll = _ll + _m*log(1-_p); end;"};
}

Lines poisson()
{
  return {"_lambda = _arg1;",
          filled("if (_lambda < %1) or (_lambda > %2) or (_y < 0) then _ll = %3;", {eps, big, negbig}),
          "else _ll = -_lambda - lgamma(1 + _y) + _y * log(_lambda);"};
}

Lines negative_binomial()
{
  return {"_x = _y; _n = _arg1; _p = _arg2;",
          filled("if (_x<0) or (_n<=%1) or (_p<=%1) or (_p>=%2) then _ll = %3;", {eps, one_minus_eps, negbig}),
          "else do; _lc = lgamma(_n+_x) - lgamma(_n) - lgamma(1+_x);", "_ll = _lc + _n*log(_p) + _x*log(1-_p); end;"};
}

Lines gamma_distribution()
{
  return {"_x = _y; _a = _arg1; _b = _arg2;",
          filled("if (_x<=%1) or (_a<=%1) or (_b<=%1) then _ll = %2;", {eps, negbig}),
          "else do; _lc = -_a*log(_b) - lgamma(_a);", "_ll = _lc + (-1+_a)*log(_x) - _x/_b; end;"};
}

Lines body(const ModelText& model)
{
  switch (model.code) {
  case 0:
    return normal(model.singvar);
  case 1:
    return student(model.singvar);
  case 2:
    return binary();
  case 3:
    return binomial();
  case 4:
    return poisson();
  case 6:
    return negative_binomial();
  case 7:
    return gamma_distribution();
  default:
    return {"_ll = _arg1;"};
  }
}

} // namespace

int expected_arguments(int code)
{
  return code == 1 ? 3 : code == 2 || code == 4 || code == 5 ? 1 : 2;
}

std::vector<std::string> tvlmodl(const ModelText& model)
{
  Lines lines = {"_y = " + model.dependent + ";"};
  std::string missing = "missing(_y)";
  for (std::size_t k = 0; k < model.arguments.size(); ++k) {
    const std::string name = "_arg" + std::to_string(k + 1);
    lines.push_back(name + " = (" + model.arguments[k] + ");");
    missing += " or missing(" + name + ")";
  }
  lines.push_back("if " + missing + " then _ll = .;");
  lines.push_back("else do;");
  for (auto& line : body(model)) lines.push_back(std::move(line));
  lines.push_back("end;");
  return lines;
}

} // namespace torvale::run
