// The manuals of the node types and verdicts, and the man page, against the program.
#include "support/Vxrun.h"

#include <vxkit/Verdict.h>

#include <regex.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <sstream>

namespace {

using namespace vxrun_test;
using namespace vxkit;

// The rows "name | help" of the configs and entries of each node type; those of entries begin with
// "entry ".
using Manual = std::map<std::string, std::set<std::string>>;

// `text` without the blanks around it.
std::string trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    return first == text.npos ? "" : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

// Lines "type help", and for each "    name help" or "    entry name help".
Manual listedNodes(std::istringstream lines) {
    Manual manual;
    std::string type;
    for (std::string line; std::getline(lines, line);) {
        const size_t start = line.find_first_not_of(' ');
        if (start == 0) manual[type = line.substr(0, line.find(' '))];
        if (start == 0) continue;
        const bool isEntry = line.compare(start, 6, "entry ") == 0;
        const size_t end = line.find(' ', start + (isEntry ? 6 : 0));
        manual[type].insert(line.substr(start, end - start) + " | " + trimmed(line.substr(end)));
    }
    return manual;
}

// Headings "## type", and for each the rows "| `name` | help |" or "| entry `name` | help |".
Manual describedNodes(std::istringstream lines) {
    Manual manual;
    std::string type;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("## ", 0) == 0) type = line.find('/') != line.npos ? line.substr(3) : "";
        if (line.rfind("## ", 0) == 0 && !type.empty()) manual[type];
        const size_t middle = line.find(" | "), end = line.rfind(" |");
        const bool hasTwoCells = std::count(line.begin(), line.end(), '|') == 3;
        if (type.empty() || !hasTwoCells || line.substr(0, middle).find('`') == line.npos) continue;
        std::string name = line.substr(2, middle - 2);
        name.erase(std::remove(name.begin(), name.end(), '`'), name.end());
        manual[type].insert(name + " | " + line.substr(middle + 3, end - middle - 3));
    }
    return manual;
}

// Catches: a node type, config or entry that docs/nodes.md lacks, still has or describes otherwise.
TEST_F(Vxrun, ListsTheNodesThatItsManualDescribes) {
    const Manual listed = listedNodes(std::istringstream(vxrun({"--list-nodes"}).out));
    EXPECT_FALSE(listed.empty());
    EXPECT_EQ(
        describedNodes(std::istringstream(contentOf(VXRUN_GRAPHS_DIR "/../../../docs/nodes.md"))),
        listed);
}

// The last groups of all matches of a POSIX extended regular expression.
std::set<std::string> matchesIn(const std::string& text, const char* pattern) {
    std::set<std::string> found;
    regex_t regex;
    EXPECT_EQ(regcomp(&regex, pattern, REG_EXTENDED), 0);
    regmatch_t groups[3];
    for (const char* at = text.c_str(); regexec(&regex, at, 3, groups, 0) == 0;
         at += groups[0].rm_eo) {
        const regmatch_t& last = groups[regex.re_nsub];
        found.insert(std::string(at + last.rm_so, at + last.rm_eo));
    }
    regfree(&regex);
    return found;
}

// Catches: a command or an option that the man page lacks or still has.
TEST_F(Vxrun, HasTheCommandsAndOptionsOfItsManPage) {
    std::string help = vxrun({"--help"}).out;
    const auto commands =
        matchesIn(help.substr(std::min(help.find("\nSubcommands:"), help.size())), "\n  ([a-z]+) ");
    EXPECT_FALSE(commands.empty());
    for (const std::string& command : commands) help += vxrun({command, "--help"}).out;
    const std::string page = contentOf(VXRUN_GRAPHS_DIR "/../vxrun.1");
    EXPECT_EQ(matchesIn(page, "\n\\.It Cm ([a-z]+)\n"), commands);
    EXPECT_EQ(matchesIn(page, "(Fl|,|[|]) -([a-z][a-z-]+)"), matchesIn(help, "--([a-z][a-z-]+)"));
}

// Catches: a verdict that its manual lacks, or gives another exit code.
TEST_F(Vxrun, HasTheExitCodesOfItsManual) {
    std::map<std::string, int> manual;
    std::istringstream lines(contentOf(VXRUN_GRAPHS_DIR "/../../../docs/commands.md"));
    for (std::string line; std::getline(lines, line);) {
        const size_t end = line.find(" | ", line.find(" | ") + 1);
        if (line.rfind("| ", 0) != 0 || std::isdigit(line[2]) == 0 || end > line.size()) continue;
        std::replace_if(
            line.begin(), line.end(), [](char c) { return c == '`' || c == ','; }, ' ');
        std::istringstream codes(line.substr(2)), names(line.substr(line.find(" | ") + 3));
        int code = 0, next = 0;
        for (std::string name; names >> name && name != "|";) {
            if (codes >> next) code = next;
            manual[name] = code;
        }
    }
    const auto last = static_cast<int>(Verdict::UnknownError);
    for (int i = 0; i <= last; ++i) {
        const auto verdict = static_cast<Verdict>(i);
        ASSERT_EQ(manual.count(verdictName(verdict)), 1u) << verdictName(verdict);
        EXPECT_EQ(manual[verdictName(verdict)], exitCode(verdict)) << verdictName(verdict);
    }
    EXPECT_EQ(manual.size(), static_cast<size_t>(last) + 1);
}

}  // namespace
