#include "compartment/dose_codes.h"

namespace torvale::compartment {

namespace {

constexpr Doses single = Doses::single, numbered = Doses::numbered;
constexpr Route bolus = Route::bolus, family = Route::family, data_rate = Route::data_rate, duration = Route::duration,
                option_rate = Route::option_rate, oral = Route::oral;

// One row for each code, by route.
// clang-format off
constexpr DoseCode codes[] = {
    {"NDCMPT"}, {"NODOSE"}, {"MSBnO"}, {"MSBnR"},
    {"MSB", single, Doses::none, bolus},        {"SSB", single, Doses::none, bolus},
    {"MCB", numbered, Doses::none, bolus},
    {"SSBS", Doses::none, single, bolus},       {"MSBS", Doses::none, single, bolus},
    {"MSBSC", Doses::none, numbered, bolus},    {"MCBS", numbered, single, bolus},
    {"MCBSC", numbered, numbered, bolus},
    {"MSBO", single, Doses::none, family},      {"SSBO", single, Doses::none, family},
    {"MCBO", numbered, Doses::none, family},
    {"SSBOS", Doses::none, single, family},     {"MSBOS", Doses::none, single, family},
    {"MSBOSC", Doses::none, numbered, family},  {"MCBOS", numbered, single, family},
    {"MCBOSC", numbered, numbered, family},
    {"MSR", single, Doses::none, data_rate},    {"SSR", single, Doses::none, data_rate},
    {"MCR", numbered, Doses::none, data_rate},
    {"MSRS", Doses::none, single, data_rate},   {"SSRS", Doses::none, single, data_rate},
    {"MSRSC", Doses::none, numbered, data_rate}, {"MCRS", numbered, single, data_rate},
    {"MCRSC", numbered, numbered, data_rate},
    {"MSD", single, Doses::none, duration},     {"SSD", single, Doses::none, duration},
    {"MCD", numbered, Doses::none, duration},
    {"MSDS", Doses::none, single, duration},    {"SSDS", Doses::none, single, duration},
    {"MSDSC", Doses::none, numbered, duration}, {"MCDS", numbered, single, duration},
    {"MCDSC", numbered, numbered, duration},
    {"MSRP", single, Doses::none, option_rate}, {"SSRP", single, Doses::none, option_rate},
    {"MCRP", numbered, Doses::none, option_rate},
    {"MSRPS", Doses::none, single, option_rate}, {"SSRPS", Doses::none, single, option_rate},
    {"MSRPSC", Doses::none, numbered, option_rate}, {"MCRPS", numbered, single, option_rate},
    {"MCRPSC", numbered, numbered, option_rate},
    {"MSO", single, Doses::none, oral},         {"SSO", single, Doses::none, oral},
    {"MCO", numbered, Doses::none, oral},
    {"SSOS", Doses::none, single, oral},        {"MSOS", Doses::none, single, oral},
    {"MSOSC", Doses::none, numbered, oral},     {"MCOS", numbered, single, oral},
    {"MCOSC", numbered, numbered, oral},
};
// clang-format on

} // namespace

std::span<const DoseCode> dose_codes()
{
  return codes;
}

} // namespace torvale::compartment
