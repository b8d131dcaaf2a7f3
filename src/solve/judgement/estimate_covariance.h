#pragma once
// The covariance of the estimates from the curvature that the judge has measured.

#include "solve/judgement/judgement.h"

namespace torvale::solve {

// parameter_covariance: of np parameters, dense, from the judgement j; jacobian is that of its coordinates, dx/dt,
// dense by rows. With A the inverse of the Hessian off its null space and K the bend of the coordinates, the covariance
// is J (A^-1 - K)^-1 J': that of the Hessian by the parameters.
std::vector<double> parameter_covariance(const Judgement& j, const std::vector<double>& jacobian, std::size_t np);

// take_covariance: that covariance as n.covmat (packed), the standard errors and the counts of eigenvalues.
void take_covariance(model::NX& n, const Judgement& j, const std::vector<double>& jacobian);

} // namespace torvale::solve
