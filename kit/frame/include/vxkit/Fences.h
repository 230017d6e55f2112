// PictureFences: finishes pictures after they were handed out, as a hardware codec does.
// Until the fence of a picture fires it holds the complement of its bytes, so that a consumer that
// reads too early reads wrong bytes.
#pragma once

#include <vxkit/FrameView.h>

#include <deque>
#include <memory>

namespace vxkit {

// Life     held by the node that makes the pictures.
// Threads  one at a time; waits for a fence are on any.
// Owns     shares of the pictures that are not finished.
class PictureFences {
public:
    PictureFences();
    // A fence that has not fired by then never will; waits for it end with an error.
    ~PictureFences();
    PictureFences(const PictureFences&) = delete;
    PictureFences& operator=(const PictureFences&) = delete;

    // The buffer to hand out in place of `buffer`, whose memory it shares: a picture with a fence.
    // Only pictures of the Codec 2.0 allocator have fences; any other buffer is returned as it is.
    std::shared_ptr<PoolBuffer> withFence(const std::shared_ptr<PoolBuffer>& buffer,
                                          const StreamInfo& stream);
    // Finishes the next picture and fires its fence.
    void fireNext();

private:
    struct Pending;
    std::deque<std::unique_ptr<Pending>> mPending;
};

}  // namespace vxkit
