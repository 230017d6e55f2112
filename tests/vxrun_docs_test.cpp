// The manual of the node types against the program.
#include "support/Vxrun.h"

#include <map>
#include <regex>
#include <set>

namespace {

using namespace vxrun_test;

// The rows "name | help" of the configs and entries of each node type.
using Manual = std::map<std::string, std::set<std::string>>;

// Reads the types and rows that `heading` and `row` match in the lines of `text`. The groups of
// `row` are the word "entry", if there, the name and the help.
Manual manualOf(const std::string& text, const std::regex& heading, const std::regex& row) {
    Manual manual;
    std::string type;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, row)) {
            manual[type].insert(match[1].str() + match[2].str() + " | " + match[3].str());
        } else if (std::regex_match(line, match, heading)) {
            type = match[1];
            EXPECT_TRUE(manual.try_emplace(type).second) << type << " comes twice";
        }
    }
    return manual;
}

// Catches: a node type, config or entry that docs/nodes.md lacks, still has or describes otherwise.
TEST_F(Vxrun, ListsTheNodesThatItsManualDescribes) {
    const Manual listed = manualOf(vxrun({"--list-nodes"}).out, std::regex(R"((\S+) +\S.*)"),
                                   std::regex(R"(    (entry )?(\S+) +(\S.*))"));
    const Manual described =
        manualOf(contentOf(VXRUN_GRAPHS_DIR "/../../../docs/nodes.md"),
                 std::regex(R"(## (\S+/\S+))"), std::regex(R"(\| (entry )?`(\S+)` \| ([^|]+) \|)"));
    EXPECT_FALSE(listed.empty());
    EXPECT_EQ(described, listed);
}

}  // namespace
