// <C2FenceSource.h>: where a host program gets a fence that has not fired.
//
// On a device fences come from the drivers and the codec library; there is no such header.
#pragma once

#include <C2Buffer.h>

#include <memory>

#pragma GCC visibility push(default)
namespace vexa_host {

// FenceSource: makes a fence that has not fired, and decides how it ends.
//
// Life     made unfired; the first call of fire() or abandon() counts, later ones change nothing.
// Threads  all operations: any.
// Owns     its share of the fence's state, which lives on in the copies of the fence. A source that
//          goes without either call leaves the fence unfired forever.
class FenceSource {
public:
    FenceSource();

    C2Fence fence() const;  // each call a copy of the same fence

    void fire();     // valid and ready from now on; waits end with C2_OK
    void abandon();  // neither valid nor ready; waits end with C2_BAD_STATE

private:
    const std::shared_ptr<C2Fence::Impl> mImpl;
};

}  // namespace vexa_host
#pragma GCC visibility pop
