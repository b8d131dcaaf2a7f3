// A fit from a program of one's own: data from memory, a table as numbers.
#include <cstdio>
#include <torvale/torvale.h>
#include <vector>

int main()
{
  const std::vector<double> dose = {0, 1, 2, 3, 4, 5}, killed = {1, 3, 8, 13, 17, 19}, n(6, 20);
  torvale::Settings settings;
  settings.log = [](std::string_view line) { std::fwrite(line.data(), 1, line.size(), stderr); };
  torvale::Run run(settings);
  run.bind_data("beetles", torvale::Data().add("dose", dose).add("killed", killed).add("n", n));
  const torvale::Results results = run.run("TORVALE DATA=beetles; PARMS a=-2 b=1; p = logistic(a + b*dose); "
                                           "MODEL killed ~ BINOMIAL(n, p); RUN;");
  if (results.exit_code != 0) return results.exit_code;
  const torvale::Table* estimates = results.steps.at(0).groups.at(0).table("ParameterEstimates");
  for (std::size_t row = 0; row < estimates->rows.size(); ++row)
    std::printf("%s %.4f %.4f\n", estimates->text(row, "Parameter").c_str(), estimates->number(row, "Estimate"),
                estimates->number(row, "StandardError"));
}
