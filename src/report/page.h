#pragma once
// The report of a run: one HTML page that needs nothing beside itself.

#include "host/results/results.h"
#include "host/results/table.h"

#include <string>
#include <string_view>

namespace torvale::report {

// The whole run. The same results give the same bytes.
std::string report_page(const host::RunResults& results);

// One table; id: unique in its page.
std::string html_text(const host::Table& table, std::string_view id);

// The style sheet: light and dark, narrow screens, paper.
std::string page_style();

} // namespace torvale::report
