// The pictures of fits, read back from their SVG: places of marks against the data, boxes of texts against each other.

#include "graphics/canvas.h"
#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numeric>
#include <regex>

namespace torvale::tests {

namespace {

struct Bar {
  double left, right, low, high;
};

struct Panel {
  double x0, x1, left, right, y0, y1, bottom, top;
  std::vector<std::pair<double, double>> dots; // in the units of the axes
  std::vector<std::vector<std::pair<double, double>>> chains;
  std::vector<Bar> bars;

  std::pair<double, double> data(double x, double y) const
  {
    return {x0 + (x - left) / (right - left) * (x1 - x0), y0 + (y - bottom) / (top - bottom) * (y1 - y0)};
  }
};

// The panels of a picture with their dots mapped back to data.
std::vector<Panel> panels(const std::string& svg)
{
  std::vector<Panel> out;
  const std::regex mark(
      "data-x=\"(\\S+) (\\S+) (\\S+) (\\S+)\" data-y=\"(\\S+) (\\S+) (\\S+) (\\S+)\"|<circle cx=\"([^\"]+)\" "
      "cy=\"([^\"]+)\"|<path class=\"chain [a-z]+\" d=\"([^\"]+)\"|"
      "<rect class=\"bar\" x=\"([^\"]+)\" y=\"([^\"]+)\" width=\"([^\"]+)\" height=\"([^\"]+)\"");
  for (std::sregex_iterator at(svg.begin(), svg.end(), mark), end; at != end; ++at) {
    const auto number = [&](std::size_t k) { return std::stod((*at)[k]); };
    if ((*at)[1].matched) {
      out.push_back(
          {number(1), number(2), number(3), number(4), number(5), number(6), number(7), number(8), {}, {}, {}});
    } else if (!out.empty() && (*at)[9].matched) {
      out.back().dots.push_back(out.back().data(number(9), number(10)));
    } else if (!out.empty() && (*at)[12].matched) {
      const auto low = out.back().data(number(12), number(13) + number(15)),
                 high = out.back().data(number(12) + number(14), number(13));
      out.back().bars.push_back({low.first, high.first, low.second, high.second});
    } else if (!out.empty()) {
      auto& line = out.back().chains.emplace_back();
      std::string points = (*at)[11];
      std::replace_if(
          points.begin(), points.end(), [](char c) { return c == 'M' || c == 'L'; }, ' ');
      std::istringstream numbers(points);
      for (double x = 0, y = 0; numbers >> x >> y;) line.push_back(out.back().data(x, y));
    }
  }
  return out;
}

const host::Figure* picture(const tests::Run& run, const std::string& name)
{
  for (const auto& step : run.outcome.results.steps)
    for (const auto& group : step.groups)
      for (const auto& figure : group.pictures)
        if (figure.name == name) return &figure;
  return nullptr;
}

std::vector<double> csv_column(const std::string& path, const std::string& name)
{
  std::vector<double> out;
  std::istringstream file(read_text(path));
  std::size_t at = 0, row = 0;
  for (std::string line; std::getline(file, line); ++row) {
    std::istringstream fields(line);
    std::size_t k = 0;
    for (std::string field; std::getline(fields, field, ','); ++k) {
      if (row == 0 && field == name) at = k;
      if (row > 0 && k == at) out.push_back(std::stod(field));
    }
  }
  return out;
}

// Marks stand where the data are: observed responses from the file, predictions from the formula and from PREDICT, to
// three digits of the axis.
TEST(Pictures, MarksMapBackToTheData)
{
  std::string program = example("theoph", "");
  program.insert(program.find("RUN;"), "PREDICT pred OUT=picture_predictions;\n");
  const tests::Run run = run_text(program, "examples", 0, {}, true);
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const std::string file = source_file("examples/theoph.csv");
  const auto conc = csv_column(file, "conc"), time = csv_column(file, "Time"), dose = csv_column(file, "Dose");
  const std::string written =
      (std::filesystem::temp_directory_path() / run.outcome.results.steps[0].data_sets.at(0).path).string();
  const auto individual = csv_column(written, "Pred");
  std::filesystem::remove(written);
  ASSERT_EQ(conc.size(), 132u);
  ASSERT_EQ(individual.size(), conc.size());

  ASSERT_NE(picture(run, "predictions"), nullptr);
  const auto predictions = panels(picture(run, "predictions")->svg);
  ASSERT_EQ(predictions.size(), 2u);
  const auto b = [&](const char* name) { return run.number("ParameterEstimates", name, "Estimate"); };
  const double ka = std::exp(b("beta2")), ke = std::exp(b("beta3")), cl = std::exp(b("beta1"));
  for (const Panel& p : predictions) ASSERT_EQ(p.dots.size(), conc.size());
  const double digits = 1e-3 * (predictions[0].x1 - predictions[0].x0);
  for (std::size_t i = 0; i < conc.size(); ++i) {
    const double population = dose[i] * ke * ka / cl * (std::exp(-ke * time[i]) - std::exp(-ka * time[i])) / (ka - ke);
    EXPECT_NEAR(predictions[0].dots[i].first, population, digits) << i;
    EXPECT_NEAR(predictions[0].dots[i].second, conc[i], digits) << i;
    EXPECT_NEAR(predictions[1].dots[i].first, individual[i], digits) << i;
    EXPECT_NEAR(predictions[1].dots[i].second, conc[i], digits) << i;
  }

  ASSERT_NE(picture(run, "residuals"), nullptr);
  const auto residuals = panels(picture(run, "residuals")->svg);
  ASSERT_EQ(residuals.size(), 2u); // by prediction, then along time
  for (std::size_t i = 0; i < residuals[1].dots.size(); ++i)
    EXPECT_NEAR(residuals[1].dots[i].first, time[i], 1e-3 * (residuals[1].x1 - residuals[1].x0));
  EXPECT_EQ(panels(picture(run, "individuals")->svg).size(), 12u);
}

// y = A x by elimination with the largest pivots.
std::vector<double> solved(std::vector<std::vector<double>> a, std::vector<double> y)
{
  const std::size_t n = y.size();
  for (std::size_t k = 0; k < n; ++k) {
    std::size_t p = k;
    for (std::size_t i = k + 1; i < n; ++i)
      if (std::abs(a[i][k]) > std::abs(a[p][k])) p = i;
    std::swap(a[k], a[p]);
    std::swap(y[k], y[p]);
    for (std::size_t i = k + 1; i < n; ++i) {
      const double m = a[i][k] / a[k][k];
      for (std::size_t j = k; j < n; ++j) a[i][j] -= m * a[k][j];
      y[i] -= m * y[k];
    }
  }
  for (std::size_t k = n; k-- > 0; y[k] /= a[k][k])
    for (std::size_t j = k + 1; j < n; ++j) y[k] -= a[k][j] * y[j];
  return y;
}

// Nested levels: individual predictions use the effects of all levels. In a linear model they are the best linear ones,
// y - s2 V^-1 (y - X b) with V the covariance of all records.
TEST(Pictures, NestedPredictionsUseTheEffectsOfAllLevels)
{
  const tests::Run run = run_text(example("nested_linear", ""), "examples", 0, {}, true);
  const std::string file = source_file("examples/nested_linear.csv");
  const auto clinic = csv_column(file, "clinic"), ward = csv_column(file, "ward"), week = csv_column(file, "week"),
             score = csv_column(file, "score");
  const auto b = [&](const char* name) { return run.number("ParameterEstimates", name, "Estimate"); };
  const std::size_t n = score.size();
  std::vector<std::vector<double>> v(n, std::vector<double>(n, 0.0));
  std::vector<double> away(n), individual(n);
  for (std::size_t i = 0; i < n; ++i) {
    away[i] = score[i] - b("b0") - b("b1") * week[i];
    for (std::size_t j = 0; j < n; ++j) {
      if (clinic[i] == clinic[j])
        v[i][j] = b("v00") + b("v01") * (week[i] + week[j]) + b("v11") * week[i] * week[j] +
                  (ward[i] == ward[j] ? b("vw") : 0) + (i == j ? b("s2") : 0);
    }
  }
  const auto weighted = solved(v, away);
  for (std::size_t i = 0; i < n; ++i) individual[i] = score[i] - b("s2") * weighted[i];

  const auto predictions = panels(picture(run, "predictions")->svg);
  ASSERT_EQ(predictions.size(), 2u);
  ASSERT_EQ(predictions[1].dots.size(), n);
  for (std::size_t i = 0; i < n; ++i) {
    EXPECT_NEAR(predictions[0].dots[i].first, b("b0") + b("b1") * week[i],
                2e-3 * (predictions[0].x1 - predictions[0].x0));
    EXPECT_NEAR(predictions[1].dots[i].first, individual[i], 2e-3 * (predictions[1].x1 - predictions[1].x0)) << i;
  }
  EXPECT_NE(picture(run, "effects-clinic"), nullptr);
  EXPECT_NE(picture(run, "effects-ward"), nullptr);
}

// Paths of chains are the draws of OUT=; densities have the area 1 and stand about the posterior mean.
TEST(Pictures, ChainsAreTheDraws)
{
  const tests::Run run =
      run_text("TORVALE DATA=posterior_normal SEED=3; PARMS m=10 s2=8; BOUNDS s2 > 0; MODEL y ~ NORMAL(m, s2);"
               "MCMC SAMPLER=NUTS SAMPLES=300 BURN=300 CHAINS=2 OUT=picture_draws; RUN;",
               "tests/data/programs", 0, {}, true);
  const std::string written =
      (std::filesystem::temp_directory_path() / run.outcome.results.steps[0].data_sets.at(0).path).string();
  const auto draws = csv_column(written, "m");
  std::filesystem::remove(written);
  ASSERT_EQ(draws.size(), 600u) << run.log;
  ASSERT_NE(picture(run, "chains"), nullptr);
  const auto found = panels(picture(run, "chains")->svg);
  ASSERT_EQ(found.size(), 6u); // m, s2, LogPost: path and density
  ASSERT_EQ(found[0].chains.size(), 2u);
  const double digits = 1e-2 * (found[0].y1 - found[0].y0);
  for (std::size_t c = 0; c < 2; ++c) {
    ASSERT_EQ(found[0].chains[c].size(), 300u);
    for (std::size_t k = 0; k < 300; ++k) EXPECT_NEAR(found[0].chains[c][k].second, draws[300 * c + k], digits);
    double area = 0, mean = 0;
    const auto& density = found[1].chains[c];
    for (std::size_t k = 1; k < density.size(); ++k) {
      const double piece = (density[k].first - density[k - 1].first) * (density[k].second + density[k - 1].second) / 2;
      area += piece;
      mean += piece * (density[k].first + density[k - 1].first) / 2;
    }
    EXPECT_NEAR(area, 1, 0.05);
    const auto first = draws.begin() + static_cast<long>(300 * c);
    EXPECT_NEAR(mean / area, std::accumulate(first, first + 300, 0.0) / 300, 5 * digits);
  }
  const auto lags = panels(picture(run, "autocorrelation")->svg);
  ASSERT_EQ(lags.size(), 3u);
  EXPECT_NEAR(lags[0].dots.at(0).first, 0, 1e-9);
  EXPECT_NEAR(lags[0].dots.at(0).second, 1, 0.01);
}

// Bars hang from the root of the expected number of records down by the root of the observed one, for all counts in the
// bin; the last holds all that are larger.
TEST(Pictures, BarsOfCountsAreTheFrequencies)
{
  const tests::Run run = run_text("TORVALE DATA=warpbreaks;\nPARMS b0=3 b1=0;\nmu = exp(b0 + b1*(wool='B'));\n"
                                  "MODEL breaks ~ POISSON(mu);\nRUN;",
                                  "examples", 0, {}, true);
  const auto breaks = csv_column(source_file("examples/warpbreaks.csv"), "breaks");
  const double mean_a = std::exp(run.number("ParameterEstimates", "b0", "Estimate")),
               mean_b = mean_a * std::exp(run.number("ParameterEstimates", "b1", "Estimate"));
  ASSERT_NE(picture(run, "frequencies"), nullptr);
  const auto found = panels(picture(run, "frequencies")->svg);
  ASSERT_EQ(found.size(), 1u);
  const auto& bars = found[0].bars;
  ASSERT_GE(bars.size(), 6u);
  const double digits = 3e-3 * (found[0].y1 - found[0].y0);
  for (std::size_t k = 0; k < bars.size(); ++k) {
    const double from = std::ceil(bars[k].left - 0.1), to = std::floor(bars[k].right + 0.1);
    double observed = 0, expected = 0;
    for (const double y : breaks) observed += y >= from && y <= to;
    for (const double mean : {mean_a, mean_b}) // 27 records each
      for (double y = from; y <= to; ++y) expected += 27 * std::exp(y * std::log(mean) - mean - std::lgamma(y + 1));
    EXPECT_NEAR(bars[k].high - bars[k].low, std::sqrt(observed), 2 * digits) << from;
    EXPECT_NEAR(bars[k].high, std::sqrt(expected), digits) << from;
  }
  double total = 0, expected = 0;
  for (const Bar& bar : bars) total += std::pow(bar.high - bar.low, 2);
  for (const auto& dot : found[0].dots) expected += dot.second * dot.second; // a dot a bin, empty ones too
  EXPECT_NEAR(total, 54, 0.5);
  EXPECT_NEAR(expected, 54, 0.5);
}

// Bins of equal size along the prediction: their mean prediction and their share of ones.
TEST(Pictures, CalibrationBinsAreMeans)
{
  const tests::Run run = run_text("TORVALE DATA=mixture_logit;\nPARMS a=0 b=0;\np = 1/(1 + exp(-a - b*x));\n"
                                  "MODEL y ~ BINARY(p);\nRUN;",
                                  "examples", 0, {}, true);
  const std::string file = source_file("examples/mixture_logit.csv");
  const auto x = csv_column(file, "x"), y = csv_column(file, "y");
  const double a = run.number("ParameterEstimates", "a", "Estimate"),
               b = run.number("ParameterEstimates", "b", "Estimate");
  std::vector<std::pair<double, std::size_t>> order;
  for (std::size_t i = 0; i < x.size(); ++i) order.emplace_back(1 / (1 + std::exp(-a - b * x[i])), i);
  std::sort(order.begin(), order.end());
  ASSERT_NE(picture(run, "calibration"), nullptr);
  EXPECT_EQ(picture(run, "predictions"), nullptr); // dots of zeros and ones say nothing
  const auto found = panels(picture(run, "calibration")->svg);
  ASSERT_EQ(found.size(), 1u);
  const std::size_t bins = found[0].dots.size();
  ASSERT_GE(bins, 5u);
  for (std::size_t k = 0; k < bins; ++k) {
    const std::size_t from = order.size() * k / bins, to = order.size() * (k + 1) / bins;
    double predicted = 0, ones = 0;
    for (std::size_t i = from; i < to; ++i) {
      predicted += order[i].first / static_cast<double>(to - from);
      ones += y[order[i].second] / static_cast<double>(to - from);
    }
    EXPECT_NEAR(found[0].dots[k].first, predicted, 1e-3) << k;
    EXPECT_NEAR(found[0].dots[k].second, ones, 2e-3) << k;
  }
}

// The texts of a picture as boxes, with the width that the room estimates.
std::vector<graphics::Box> text_boxes(const std::string& svg)
{
  std::vector<graphics::Box> out;
  const std::regex mark("<text x=\"([^\"]+)\" y=\"([^\"]+)\"([^>]*)>([^<]*)</text>"), size("font-size=\"([^\"]+)\"");
  for (std::sregex_iterator at(svg.begin(), svg.end(), mark), end; at != end; ++at) {
    const std::string attributes = (*at)[3], words = (*at)[4];
    std::smatch found;
    const double h = std::regex_search(attributes, found, size) ? std::stod(found[1]) : graphics::font_size;
    const double x = std::stod((*at)[1]), y = std::stod((*at)[2]), w = graphics::text_width(words, h);
    const double before = attributes.find("\"middle\"") != std::string::npos ? w / 2
                          : attributes.find("\"end\"") != std::string::npos  ? w
                                                                             : 0;
    if (attributes.find("rotate(-90") != std::string::npos)
      out.push_back({x - 0.8 * h, y - (w - before), h, w, words});
    else
      out.push_back({x - before, y - 0.8 * h, w, h, words});
  }
  return out;
}

bool overlap(const graphics::Box& a, const graphics::Box& b)
{
  return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

TEST(Pictures, TextsStandApartAndInside)
{
  int drawn = 0;
  for (const char* name : {"theoph", "epil", "cbpp", "litters", "orange", "sleepstudy", "emax", "reliability",
                           "fixed_gamma", "fixed_negbin", "epil_negbin", "nested_linear", "nested_count"}) {
    const tests::Run run = run_text(example(name, ""), "examples", 0, {}, true);
    ASSERT_FALSE(run.outcome.results.steps.empty());
    for (const auto& group : run.outcome.results.steps[0].groups)
      for (const auto& figure : group.pictures) {
        ++drawn;
        std::smatch size;
        ASSERT_TRUE(std::regex_search(figure.svg, size, std::regex("viewBox=\"0 0 (\\S+) (\\S+)\"")));
        const double width = std::stod(size[1]), height = std::stod(size[2]);
        const auto boxes = text_boxes(figure.svg);
        for (std::size_t i = 0; i < boxes.size(); ++i) {
          const auto& a = boxes[i];
          EXPECT_TRUE(a.x >= -2 && a.y >= -1 && a.x + a.width <= width + 2 && a.y + a.height <= height + 1)
              << name << " " << figure.name << ": " << a.text << " leaves the picture";
          for (std::size_t j = 0; j < i; ++j)
            EXPECT_FALSE(overlap(a, boxes[j]))
                << name << " " << figure.name << ": " << a.text << " and " << boxes[j].text;
        }
        EXPECT_FALSE(figure.caption.empty());
        EXPECT_EQ(figure.svg.find("nan"), std::string::npos) << name << " " << figure.name;
      }
  }
  EXPECT_GE(drawn, 60);
}

// Every group has its own pictures; nothing is drawn unasked.
TEST(Pictures, AreDrawnWhenAskedFor)
{
  const std::string program = "TORVALE DATA=warpbreaks;\nPARMS b0=3 b1=0;\nmu = exp(b0 + b1*(tension='L'));\n"
                              "MODEL breaks ~ POISSON(mu);\nBY wool;\nRUN;";
  const auto asked = run_text(program, "examples", 0, {}, true), unasked = run_text(program);
  ASSERT_EQ(asked.outcome.results.steps.at(0).groups.size(), 2u);
  for (const auto& group : asked.outcome.results.steps.at(0).groups) EXPECT_GE(group.pictures.size(), 3u);
  for (const auto& group : unasked.outcome.results.steps.at(0).groups) EXPECT_TRUE(group.pictures.empty());
}

} // namespace

} // namespace torvale::tests
