// Factorizations and quadratic forms against the nearest dense operation of Eigen, one thread, same compiler
// flags. Each iteration works on the next of a set of matrices, copied in before it is overwritten (both
// sides), so that neither branch history nor the first-level cache flatters small orders. Result arrays are
// allocated once on both sides.
#include <benchmark/benchmark.h>

#include <Eigen/Cholesky>
#include <Eigen/Core>
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "matrix/cholesky.h"
#include "matrix/eigenvalues.h"
#include "matrix/packed.h"
#include "matrix/quadratic_forms.h"
#include "matrix/sweep.h"
#include "matrix/udu.h"

namespace {

using namespace torvale::matrix;
using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

// Positive definite matrices of one order in both storages.
struct Problems {
  int n;
  std::vector<std::vector<double>> packed;
  std::vector<Eigen::MatrixXd> dense;

  explicit Problems(int order) : n(order)
  {
    std::mt19937 engine(7);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    const int count = n > 64 ? 4 : 64;
    for (int c = 0; c < count; ++c) {
      const Eigen::MatrixXd b = Eigen::MatrixXd::NullaryExpr(n, n, [&] { return uniform(engine); });
      dense.push_back(b * b.transpose() + Eigen::MatrixXd::Identity(n, n));
      std::vector<double> s;
      for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) s.push_back(dense.back()(i, j));
      packed.push_back(s);
    }
  }
  std::size_t next(std::size_t& at) const { return at = at + 1 < packed.size() ? at + 1 : 0; }
};

void cholesky_torvale(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  std::vector<double> l(problems.packed[0].size());
  std::size_t at = 0;
  for (auto _ : state) {
    const std::vector<double>& a = problems.packed[problems.next(at)];
    std::copy(a.begin(), a.end(), l.begin());
    for (int k = 0; k < problems.n; ++k) zchol(k, l.data(), 1e-12);
    benchmark::DoNotOptimize(l.data());
    benchmark::ClobberMemory();
  }
}

void cholesky_eigen(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  Eigen::LLT<Eigen::MatrixXd> llt(problems.n);
  std::size_t at = 0;
  for (auto _ : state) {
    llt.compute(problems.dense[problems.next(at)]);
    benchmark::DoNotOptimize(llt.matrixLLT().data());
    benchmark::ClobberMemory();
  }
}

void sweep_torvale(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  const int n = problems.n;
  std::vector<double> x(problems.packed[0].size());
  std::vector<double> work(static_cast<std::size_t>(n));
  std::vector<char> df(static_cast<std::size_t>(n));
  std::size_t at = 0;
  for (auto _ : state) {
    const std::vector<double>& a = problems.packed[problems.next(at)];
    std::copy(a.begin(), a.end(), x.begin());
    std::fill(df.begin(), df.end(), '0');
    for (int k = 0; k < n; ++k) qkzsweep(x.data(), k, n, df.data(), work.data(), 1e-12);
    benchmark::DoNotOptimize(x.data());
    benchmark::ClobberMemory();
  }
}

void sweep_eigen(benchmark::State& state) // the inverse through the Cholesky factor
{
  const Problems problems(static_cast<int>(state.range(0)));
  Eigen::LLT<Eigen::MatrixXd> llt(problems.n);
  Eigen::MatrixXd inverse(problems.n, problems.n);
  std::size_t at = 0;
  for (auto _ : state) {
    llt.compute(problems.dense[problems.next(at)]);
    inverse.setIdentity();
    llt.solveInPlace(inverse);
    benchmark::DoNotOptimize(inverse.data());
    benchmark::ClobberMemory();
  }
}

void udu_torvale(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  std::vector<double> a(problems.packed[0].size());
  std::vector<std::int64_t> h(static_cast<std::size_t>(problems.n));
  std::size_t at = 0;
  for (auto _ : state) {
    const std::vector<double>& s = problems.packed[problems.next(at)];
    std::copy(s.begin(), s.end(), a.begin());
    zududec(problems.n, 1e-12, nullptr, a.data(), h.data());
    benchmark::DoNotOptimize(a.data());
    benchmark::ClobberMemory();
  }
}

void udu_eigen(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  Eigen::LDLT<Eigen::MatrixXd> ldlt(problems.n);
  std::size_t at = 0;
  for (auto _ : state) {
    ldlt.compute(problems.dense[problems.next(at)]);
    benchmark::DoNotOptimize(ldlt.matrixLDLT().data());
    benchmark::ClobberMemory();
  }
}

// The form R S R' with R square.
void zqform_torvale(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  const int n = problems.n;
  const RowMajor r = RowMajor::Random(n, n);
  std::vector<double> product(problems.packed[0].size());
  std::vector<double> work(static_cast<std::size_t>(n));
  std::size_t at = 0;
  for (auto _ : state) {
    zqform(problems.packed[problems.next(at)].data(), n, r.data(), n, product.data(), work.data(), 0);
    benchmark::DoNotOptimize(product.data());
    benchmark::ClobberMemory();
  }
}

void zqform_eigen(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  const int n = problems.n;
  const RowMajor r = RowMajor::Random(n, n);
  RowMajor half(n, n);
  RowMajor product(n, n);
  std::size_t at = 0;
  for (auto _ : state) {
    half.noalias() = r * problems.dense[problems.next(at)].selfadjointView<Eigen::Lower>();
    product.triangularView<Eigen::Lower>() = half * r.transpose();
    benchmark::DoNotOptimize(product.data());
    benchmark::ClobberMemory();
  }
}

// The scalar form x' S x.
void zqform_vector_torvale(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  const Eigen::VectorXd x = Eigen::VectorXd::Random(problems.n);
  double q = 0.0;
  std::vector<double> work(static_cast<std::size_t>(problems.n));
  std::size_t at = 0;
  for (auto _ : state) {
    zqform(problems.packed[problems.next(at)].data(), problems.n, x.data(), 1, &q, work.data(), 0);
    benchmark::DoNotOptimize(q);
  }
}

void zqform_vector_eigen(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  const Eigen::VectorXd x = Eigen::VectorXd::Random(problems.n);
  Eigen::VectorXd half(problems.n);
  double q = 0.0;
  std::size_t at = 0;
  for (auto _ : state) {
    half.noalias() = problems.dense[problems.next(at)].selfadjointView<Eigen::Lower>() * x;
    q = x.dot(half);
    benchmark::DoNotOptimize(q);
  }
}

void eigenvectors_torvale(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  const auto order = static_cast<std::size_t>(problems.n);
  std::vector<double> z(order * order), d(order), e(order);
  std::size_t at = 0;
  for (auto _ : state) {
    const Eigen::MatrixXd& a = problems.dense[problems.next(at)];
    std::copy(a.data(), a.data() + z.size(), z.begin());
    ztred2(problems.n, z.data(), d.data(), e.data());
    benchmark::DoNotOptimize(ztql2(problems.n, z.data(), d.data(), e.data(), 1));
  }
}

void eigenvectors_eigen(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(problems.n);
  std::size_t at = 0;
  for (auto _ : state) {
    solver.compute(problems.dense[problems.next(at)]);
    benchmark::DoNotOptimize(solver.eigenvalues().data());
  }
}

void all_eigenvalues_torvale(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  std::vector<double> a, values(static_cast<std::size_t>(problems.n)), work(5 * values.size());
  std::size_t at = 0;
  for (auto _ : state) {
    a = problems.packed[problems.next(at)];
    benchmark::DoNotOptimize(zeigval(problems.n, a.data(), values.data(), problems.n, work.data()));
  }
}

void all_eigenvalues_eigen(benchmark::State& state)
{
  const Problems problems(static_cast<int>(state.range(0)));
  Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(problems.n);
  std::size_t at = 0;
  for (auto _ : state) {
    solver.compute(problems.dense[problems.next(at)], Eigen::EigenvaluesOnly);
    benchmark::DoNotOptimize(solver.eigenvalues().data());
  }
}

void large_orders(benchmark::internal::Benchmark* bench)
{
  for (const int n : {8, 32, 200, 500}) bench->Arg(n);
}

void orders(benchmark::internal::Benchmark* bench)
{
  for (const int n : {2, 4, 8, 32, 200}) bench->Arg(n);
}

BENCHMARK(cholesky_torvale)->Apply(orders);
BENCHMARK(cholesky_eigen)->Apply(orders);
BENCHMARK(sweep_torvale)->Apply(orders);
BENCHMARK(sweep_eigen)->Apply(orders);
BENCHMARK(udu_torvale)->Apply(orders);
BENCHMARK(udu_eigen)->Apply(orders);
BENCHMARK(zqform_torvale)->Apply(orders);
BENCHMARK(zqform_eigen)->Apply(orders);
BENCHMARK(zqform_vector_torvale)->Apply(orders);
BENCHMARK(zqform_vector_eigen)->Apply(orders);
BENCHMARK(eigenvectors_torvale)->Apply(large_orders);
BENCHMARK(eigenvectors_eigen)->Apply(large_orders);
BENCHMARK(all_eigenvalues_torvale)->Apply(large_orders);
BENCHMARK(all_eigenvalues_eigen)->Apply(large_orders);

} // namespace
