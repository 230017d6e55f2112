// NodeLibrary: node types that come from shared objects. Each holds node types, as sources with
// Registered objects, and is linked with vxkit.
#pragma once

#include <string>
#include <vector>

namespace vxkit {

// Loads the node library `file`, which registers its types and stays loaded; a second time it does
// nothing. A name without a slash that is no file here is searched for as dlopen(3) does.
//
// Before the graph is built, and on one thread. Throws Failure "FILE: reason" for a file that
// cannot be loaded, one that is not a node library, one that was built against another major
// version of vxkit, and one that registers a name that is taken.
void loadNodeLibrary(const std::string& file);

// The files that it has loaded, in this order: paths, but for those that dlopen(3) has found.
const std::vector<std::string>& loadedNodeLibraries();

}  // namespace vxkit
