// HtmlParts: the parts of the page of a report.
#pragma once

#include "HtmlPage.h"

namespace vxrun {

// What the reports name: files that are beside them or where they say, and room for pictures.
struct HtmlFiles {
    std::string folder;  // of the report
    size_t* room;        // bytes of pictures that the page may still get
    size_t* cellRoom;    // likewise digits of wrong cells
};
// The absolute path of a file that a report names; empty when there is no such file.
std::string locatedFile(const HtmlFiles& files, const std::string& name);

// A failure, as the member "failure" describes it; `id` is that of its element.
void addFailure(pugi::xml_node parent, const std::string& id, const std::string& name,
                const Json& failure, HtmlFiles* files);
// A run, as the member "run" describes it; `id` is that of its failure.
void addRun(pugi::xml_node parent, const std::string& id, const Json& run, HtmlFiles* files);

}  // namespace vxrun
