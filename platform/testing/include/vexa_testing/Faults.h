// Faults and counts of the host's buffer platform. For tests only.  All functions: [any thread]
#pragma once

#include <cstdint>
#include <string>

#pragma GCC visibility push(default)
namespace vexa_testing {

enum class Call {
    HeapAlloc,      // BufferAllocator::Alloc; fails with an errno number
    BlockPool,      // android::GetCodec2BlockPool; fails with a c2_status_t
    FetchBlock,     // either fetch of a Codec 2.0 block pool; fails with a c2_status_t
    VendorSetting,  // a setter of an xc2 pool; fails with an xc2::XC2Status
    FenceFd,        // C2Fence::fd; returns the number, a descriptor as a device's fences have
};
constexpr int kCalls = 5;

// In place of an error: the call ends well and returns nothing, which a device's library may do. Of
// BlockPool only.
constexpr int kNothing = -1000;

// The `nth` call of that kind from now on (1: the next one) fails with `error`, that one only.
void failCall(Call call, int nth, int error);

// Takes back what failCall announced.
void clearFaults();

// For the platform: the error that the call being made is to fail with, 0 to go ahead.
int injectedError(Call call);

// The next allocation from each heap decides anew where memory comes from
// (<BufferAllocator/BufferAllocator.h>), with the devices of the folder `devices`. Not while others
// allocate.
void forgetSources(const std::string& devices = "/dev");

// The usage word of the last fetch of a Codec 2.0 block pool.
uint64_t lastFetchUsage();

// Blocks of the Codec 2.0 pools, and buffers of the xc2 pools, that are alive.
int liveBlocks();
int liveVendorBuffers();

}  // namespace vexa_testing
#pragma GCC visibility pop
