// Pool: where a node's buffers come from: a pool of the library, of the graph's allocator type and
// with a slot limit, that counts and reports when a buffer has come back.
#pragma once

#include <VXBuffer.h>
#include <vxkit/Evidence.h>
#include <vxkit/Format.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace vxkit {

class PoolBuffer;

// Life     held by its node and by every buffer that is out, so none outlives it.
// Threads  fetch(): the node's. Buffers come back on any thread.
// Owns     the library's pool.
class Pool final : public std::enable_shared_from_this<Pool> {
public:
    // A pool of `slots` buffers for pictures of `format`, or for blocks of as many bytes. Throws
    // Failure when the allocator makes no such buffers. `onFree` is called on any thread once a
    // buffer has come back after a fetch() that found none.
    static std::shared_ptr<Pool> make(const std::string& allocator, const PictureFormat& format,
                                      size_t slots, PoolRecord& record,
                                      std::shared_ptr<Trace> trace, std::function<void()> onFree);

    const PictureFormat& format() const { return mFormat; }

    // Fetches a buffer, whose filled range is the whole size. Never waits.
    //   VX_OK            `*buffer` is set; it is empty on every other result
    //   VX_NO_FREE_SLOT  all are out; `onFree` will be called
    //   VX_NO_MEMORY     the allocator has no memory
    vexa::VXError fetch(std::shared_ptr<PoolBuffer>* buffer);

private:
    friend class PoolBuffer;
    struct Lease;

    Pool(const PictureFormat& format, PoolRecord& record, std::shared_ptr<Trace> trace,
         std::function<void()> onFree)
        : mFormat(format), mRecord(record), mTrace(std::move(trace)), mOnFree(std::move(onFree)) {}

    vexa::VXError fetchNow(std::shared_ptr<PoolBuffer>* buffer);
    void traceFree() const;

    const PictureFormat mFormat;
    PoolRecord& mRecord;
    const std::shared_ptr<Trace> mTrace;
    const std::function<void()> mOnFree;
    std::shared_ptr<vexa::VXBufferPool> mBuffers;
    // By uid, all that were made. [the node's thread]
    std::map<uint64_t, std::shared_ptr<vexa::VXBuffer::Mapping>> mMade;
    std::atomic<bool> mWanted{false};  // a fetch() found no free buffer
};

// PoolBuffer: a buffer that is out, and where it came from. It travels with the frame that it
// holds, as one of the frame's infos.
//
// Life     shared; when the last share is gone the buffer goes back to its pool.
// Threads  any.
// Owns     the buffer, and a share of its pool.
class PoolBuffer final : public vexa::VXInfo {
public:
    // For Pool, and for with().
    PoolBuffer(std::shared_ptr<Pool::Lease> lease, std::shared_ptr<vexa::VXBuffer> buffer);

    // `other`, which shares the memory of `origin`, as a buffer of the same pool: the memory is out
    // until both are released.
    static std::shared_ptr<PoolBuffer> with(const PoolBuffer& origin,
                                            std::unique_ptr<vexa::VXBuffer> other);

    // The buffer of `self`, which keeps `self` alive: what a work carries.
    static std::shared_ptr<vexa::VXBuffer> payload(const std::shared_ptr<PoolBuffer>& self) {
        return {self, self->mBuffer.get()};
    }

    vexa::VXBuffer& buffer() const { return *mBuffer; }
    PoolRecord& record() const;
    // The memory. A buffer stays mapped: mapping a 1080p picture again costs a page fault per 4
    // KiB, a millisecond in all.
    const std::shared_ptr<vexa::VXBuffer::Mapping>& mapping() const;

private:
    // The buffer goes before the lease, with which its memory goes back.
    const std::shared_ptr<Pool::Lease> mLease;
    const std::shared_ptr<vexa::VXBuffer> mBuffer;
};

}  // namespace vxkit
