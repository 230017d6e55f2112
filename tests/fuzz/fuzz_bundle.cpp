// Bundles; a tar need not be compressed.
#include "FuzzFile.h"

#include <Bundle.h>
#include <Files.h>

void readFile(const std::string& path) {
    const vxrun::TemporaryFolder folder;
    vxrun::openBundle(path, folder.path(), [] {});
}
