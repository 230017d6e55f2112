// The names of vxkit are vxrun's own.
#pragma once

namespace vxkit {}
namespace vxrun {
using namespace vxkit;
}
