// The table that vxrun suite prints.
#include "Report.h"
#include "Text.h"

#include <algorithm>

namespace vxrun {

std::string profileTable(const Suite& suite) {
    std::vector<std::pair<std::string, Counts>> rows;
    for (const auto& [profile, counts] : countsByProfile(suite)) {
        rows.emplace_back(profile.empty() ? "-" : printable(profile), counts);
    }
    rows.emplace_back("all", suite.counts());
    size_t width = 7;  // of "profile"
    for (const auto& row : rows) width = std::max(width, row.first.size());
    std::ostringstream table;
    table << "profile" << std::string(width - 7, ' ')
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
    return table.str();
}

}  // namespace vxrun
