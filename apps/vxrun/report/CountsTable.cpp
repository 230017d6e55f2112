// The table that vxrun suite prints.
#include "Report.h"
#include "Text.h"

#include <algorithm>

namespace vxrun {

std::string countsTable(const SuiteResults& results) {
    const bool isOne = results.columns.size() == 1;
    std::vector<std::pair<std::string, Counts>> rows;
    if (isOne) {
        for (const auto& [profile, counts] : countsByProfile(results.columns.front())) {
            rows.emplace_back(profile.empty() ? "-" : printable(profile), counts);
        }
        rows.emplace_back("all", results.columns.front().counts());
    } else {
        for (const Suite& suite : results.columns) {
            rows.emplace_back(printable(suite.decoder), suite.counts());
        }
    }
    size_t width = 7;  // of "profile" and "decoder"
    for (const auto& row : rows) width = std::max(width, row.first.size());
    std::ostringstream table;
    table << (isOne ? "profile" : "decoder") << std::string(width - 7, ' ')
          << "     total    passed    failed    errors   skipped   seconds\n";
    for (const auto& [name, counts] : rows) {
        table << name << std::string(width - name.size(), ' ');
        for (const size_t count :
             {counts.total, counts.of[TestVector::SUCCESS], counts.of[TestVector::FAIL],
              counts.errors(), counts.skipped()}) {
            table << std::setw(10) << count;
        }
        table << std::setw(10) << decimal(counts.seconds, 1) << "\n";
    }
    const auto names = disagreements(results);
    if (!names.empty()) table << "the decoders disagree on " << printable(joined(names)) << "\n";
    return table.str();
}

}  // namespace vxrun
