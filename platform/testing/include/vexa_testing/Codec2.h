// Fences that a test fires, and prepared answers of the codec library's pools. For tests only.
#pragma once

#include <C2FenceSource.h>
#include <xc2/Buffer.h>
#include <xc2/Event.h>

#include <memory>

#pragma GCC visibility push(default)
namespace vexa_testing {

// The tests' name of the host's source of fences.
using FenceTrigger = vexa_host::FenceSource;

// The next allocate() of an xc2 pool, of either kind, answers with `status` and `buffer` instead of
// a buffer of its own.  [any thread]
void scriptVendorAllocate(xc2::XC2Status status, std::shared_ptr<xc2::XC2Buffer> buffer);

}  // namespace vexa_testing
#pragma GCC visibility pop
