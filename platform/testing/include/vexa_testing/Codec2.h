// Fences in the tests' hand, and answers put into the mouth of the codec library's pools. For tests
// only.
#pragma once

#include <C2Buffer.h>
#include <xc2/Buffer.h>
#include <xc2/Event.h>

#include <memory>

#pragma GCC visibility push(default)
namespace vexa_testing {

// FenceTrigger: makes a fence that is not fired, and fires it.
//
// Threads  all operations: any.
// Owns     its share of the fence's state, which lives on in the copies of the fence.
class FenceTrigger {
public:
    FenceTrigger();

    C2Fence fence() const;

    void fire();     // valid and ready from now on; waits end with C2_OK
    void abandon();  // neither valid nor ready; waits end with C2_BAD_STATE

private:
    const std::shared_ptr<C2Fence::Impl> mImpl;
};

// The next allocate() of an xc2 pool, of either kind, answers with `status` and `buffer` instead of
// a buffer of its own.  [any thread]
void scriptVendorAllocate(xc2::XC2Status status, std::shared_ptr<xc2::XC2Buffer> buffer);

}  // namespace vexa_testing
#pragma GCC visibility pop
