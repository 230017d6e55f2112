// Pool: where a node of vxrun takes its buffers from: a pool of the library, of the graph's allocator
// type and with a slot limit, that counts and tells when a buffer has come back.
#pragma once

#include "Evidence.h"
#include "Payload.h"

#include <VXBuffer.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace vxrun {

// Life     held by its node and by every buffer that is out, so none outlives it.
// Threads  fetch(): the node's. Buffers come back on any thread.
// Owns     the library's pool.
class Pool final : public std::enable_shared_from_this<Pool> {
public:
    // A pool of `slots` buffers for pictures of `format`, or for blocks of as many bytes. A Failure when
    // the allocator makes no such buffers. `onFree` is called on any thread once a buffer has come back
    // after a fetch() in vain.
    static std::shared_ptr<Pool> make(const std::string& allocator, const PictureFormat& format,
                                      size_t slots, PoolRecord& record,
                                      std::function<void()> onFree);

    const PictureFormat& format() const { return mFormat; }

    // Takes a buffer; its filled range is all that was asked for. Never waits.
    //   VX_OK            `*buffer` is set; it is empty on every other result
    //   VX_NO_FREE_SLOT  all are out; `onFree` will be called
    //   VX_NO_MEMORY     the allocator has no memory
    vexa::VXError fetch(std::shared_ptr<vexa::VXBuffer>* buffer);

    // `other`, a buffer that shares the memory of `buffer`, as one that came from the same pool: it counts as
    // out until both are let go.
    static std::shared_ptr<vexa::VXBuffer> share(const std::shared_ptr<vexa::VXBuffer>& buffer,
                                                 std::unique_ptr<vexa::VXBuffer> other);

    // The record of the pool that `buffer` came from; null for one of no pool.
    static PoolRecord* recordOf(const std::shared_ptr<vexa::VXBuffer>& buffer);
    // The buffer's memory for the processor. A buffer of a pool is mapped once and stays so: to map a
    // picture of 1080p anew costs a page fault per 4 KiB of it, a millisecond in all.
    static std::shared_ptr<vexa::VXBuffer::Mapping> mappingOf(
        const std::shared_ptr<vexa::VXBuffer>& buffer);

private:
    struct Lease;
    struct Owner;

    Pool(const PictureFormat& format, PoolRecord& record, std::function<void()> onFree)
        : mFormat(format), mRecord(record), mOnFree(std::move(onFree)) {}

    vexa::VXError take(std::shared_ptr<vexa::VXBuffer>* buffer);

    const PictureFormat mFormat;
    PoolRecord& mRecord;
    const std::function<void()> mOnFree;
    std::shared_ptr<vexa::VXBufferPool> mBuffers;
    // By uid, all that were made. [the node's thread]
    std::map<uint64_t, std::shared_ptr<vexa::VXBuffer::Mapping>> mMade;
    std::atomic<bool> mWanted{false};  // a fetch() was in vain
};

}  // namespace vxrun
