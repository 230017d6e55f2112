#include "Version.h"

#include "MediaLibraries.h"
#include "Text.h"

#include <sys/utsname.h>

#if __has_include(<Commit.h>)
#include <Commit.h>
#else  // the build is not CMake's
#define VXRUN_COMMIT ""
#endif

namespace vxrun {

std::string programVersion() {
    const std::string commit = VXRUN_COMMIT;
    return VXRUN_VERSION + (commit.empty() ? "" : " (commit " + commit + ")");
}

std::vector<std::pair<std::string, std::string>> environmentFacts() {
    utsname system{};
    uname(&system);
    return {{"vxrun", programVersion()},
            {"libraries", mediaLibraries()},
            {"kernel", concat(system.sysname, " ", system.release)},
            {"machine", system.machine}};
}

}  // namespace vxrun
