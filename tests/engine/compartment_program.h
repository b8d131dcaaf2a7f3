#pragma once
// A three-compartment model with first-order absorption: 12 parameters, 4 random effects; the exponents are the roots
// of the characteristic cubic in closed form.

namespace torvale::test {

inline constexpr const char* three_compartment_program = R"(
  ka = exp(lka + u1);  cl = exp(lcl + bw*log(wt/70) + u2);  v1 = exp(lv1 + u3);  q2 = exp(lq2 + u4);
  v2 = exp(lv2);  q3 = exp(lq3);  v3 = exp(lv3);
  k10 = cl/v1;  k12 = q2/v1;  k21 = q2/v2;  k13 = q3/v1;  k31 = q3/v3;
  e1 = k10 + k12 + k13;  e2 = k21;  e3 = k31;
  a = e1 + e2 + e3;
  b = e1*e2 + e3*(e1 + e2) - k12*k21 - k13*k31;
  c = e1*e2*e3 - e3*k12*k21 - e2*k13*k31;
  m = (3*b - a**2)/3.0;
  n = (2*a**3 - 9*a*b + 27*c)/27.0;
  qq = n**2/4.0 + m**3/27.0;
  alpha = sqrt(-1*qq);
  beta = -1.0*(n/2.0);
  gam = sqrt(beta**2 + alpha**2);
  theta = atan2(alpha, beta);
  l1 = a/3.0 + gam**(1.0/3.0)*(cos(theta/3.0) + sqrt(3.0)*sin(theta/3.0));
  l2 = a/3.0 + gam**(1.0/3.0)*(cos(theta/3.0) - sqrt(3.0)*sin(theta/3.0));
  l3 = a/3.0 - 2*gam**(1.0/3.0)*cos(theta/3.0);
  t1 = (e2 - l1)*(e3 - l1)/((l2 - l1)*(l3 - l1)*(ka - l1))*exp(-l1*time);
  t2 = (e2 - l2)*(e3 - l2)/((l1 - l2)*(l3 - l2)*(ka - l2))*exp(-l2*time);
  t3 = (e2 - l3)*(e3 - l3)/((l1 - l3)*(l2 - l3)*(ka - l3))*exp(-l3*time);
  t4 = (e2 - ka)*(e3 - ka)/((l1 - ka)*(l2 - ka)*(l3 - ka))*exp(-ka*time);
  conc = dose*ka*fr*(t1 + t2 + t3 + t4)/v1;
  var = s1 + s2*abs(conc)**s3;
  if dv = . then ll = .;
  else if conc = . then ll = .;
  else do;
    resid = dv - conc;
    if (abs(resid) > 1e154) or (var < 1e-12) then ll = -1e20;
    else ll = -0.5*(1.8378770664093456 + resid**2/var + log(var));
  end;
)";

inline constexpr const char* three_compartment_parameters[] = {"lka", "lcl", "bw", "lv1", "lq2", "lv2",
                                                               "lq3", "lv3", "fr", "s1",  "s2",  "s3"};
inline constexpr const char* three_compartment_effects[] = {"u1", "u2", "u3", "u4"};

} // namespace torvale::test
