// COVDATA=: the covariance that proposals begin with, read from a data set.

#include "host/messages/names/methods.h"
#include "host/values/text.h"
#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "run/statements/statement_processing.h"

#include <cmath>

namespace torvale::run {

using model::NX;

namespace {

// A square matrix by rows: what row i and column j of the data set say, missing where they say nothing.
std::vector<double> read_matrix(NX& n, const host::DataSet& data, const host::MessagePlace& place)
{
  const auto np = static_cast<std::size_t>(n.nparm);
  const host::Column* names = data.find("Parameter");
  if (names != nullptr && names->numeric()) names = nullptr;
  std::vector<double> full(np * np, host::missing);
  for (std::size_t j = 0; j < np; ++j) {
    const host::Column* column = data.find(n.parmstr[j].parmname);
    if (column == nullptr || !column->numeric()) {
      n.host->log().xpmlog(message::covdata_lacks_variable{.name = n.parmstr[j].parmname}, place);
      tvlexit(n, 1012);
    }
    for (std::size_t row = 0; row < data.rows(); ++row) {
      std::size_t i = row;
      if (names != nullptr)
        for (i = 0; i < np && !host::equal_names(host::stripped(names->text(row)), n.parmstr[i].parmname);) ++i;
      if (i < np) full[i * np + j] = column->number(row);
    }
  }
  return full;
}

// One triangle may stand for both; where both stand they must agree, and no variance is negative.
void fill_packed(NX& n, const std::vector<double>& full, const host::MessagePlace& place)
{
  constexpr double same = 1e-6; // relative to the root of the variances
  const auto np = static_cast<std::size_t>(n.nparm);
  auto& packed = n.sampling.covariance;
  packed.assign(np * (np + 1) / 2, host::missing);
  for (std::size_t i = 0; i < np; ++i) {
    const double variance = full[i * np + i];
    if (variance < 0.0 || std::isinf(variance)) {
      n.host->log().xpmlog(message::covdata_variance_wrong{.value = variance, .name = n.parmstr[i].parmname}, place);
      tvlexit(n, 1012);
    }
    for (std::size_t j = 0; j <= i; ++j) {
      const double below = full[i * np + j], above = full[j * np + i];
      const double scale = std::sqrt(std::abs(variance * full[j * np + j]));
      if (std::abs(below - above) > same * scale) {
        n.host->log().xpmlog(
            message::covdata_not_symmetric{
                .below = below, .first = n.parmstr[i].parmname, .second = n.parmstr[j].parmname, .above = above},
            place);
        tvlexit(n, 1012);
      }
      packed[i * (i + 1) / 2 + j] = std::isnan(below) ? above : below;
    }
  }
}

// A parameter whose covariances no positive definite matrix has moves without them: the user is told.
void warn_if_indefinite(NX& n, const host::MessagePlace& place)
{
  auto factor = n.sampling.covariance;
  for (double& element : factor)
    if (std::isnan(element)) element = 0.0;
  for (int i = 0; i < n.nparm; ++i) {
    double& pivot = factor[static_cast<std::size_t>(matrix::packed_index(i, i))];
    const double variance = pivot;
    if (variance == 0.0) continue;
    matrix::zchol(i, factor.data(), n.singchol * variance);
    if (pivot > 0.0) continue;
    n.host->log().xpmlog(message::covdata_not_definite{.name = n.parmstr[static_cast<std::size_t>(i)].parmname}, place);
    n.raise(4);
    return;
  }
}

} // namespace

void proposal_covariance(NX& n, const host::DataSetReference& reference, const host::MessagePlace& place)
{
  const auto data = n.host->libraries().xoopen(reference, n.host->log(), place);
  if (!data) tvlexit(n, 1008);
  fill_packed(n, read_matrix(n, *data, place), place);
  warn_if_indefinite(n, place);
}

} // namespace torvale::run
