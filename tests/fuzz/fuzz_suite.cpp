// Conformance suites, and the filters over them.
#include "FuzzFile.h"

#include <Report.h>
#include <Selection.h>

void readFile(const std::string& path) {
    vxrun::Suite suite = vxrun::readSuite(path);
    vxrun::countsTable({{suite}, {}});
    vxrun::filterVectors(&suite, suite.name);
}
