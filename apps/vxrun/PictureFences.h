// PictureFences: has pictures finished after they were handed out, as a codec in hardware does. Until
// the fence of a picture fires it holds the complement of its bytes, so that who reads it too early
// reads something else.
#pragma once

#include "Payload.h"

#include <C2FenceSource.h>

#include <deque>

namespace vxrun {

// Threads  one at a time; who waits for a fence is on any.
// Owns     shares of the pictures that are not finished.
class PictureFences {
public:
    // What has not fired by now never will; whoever waits for it is told.
    ~PictureFences();

    // The buffer to hand out in place of `buffer`, one of a pool, whose memory it shares: a picture with a
    // fence. Anything but a picture of the Codec 2.0 allocator knows no fences and comes back as it is.
    std::shared_ptr<vexa::VXBuffer> add(const std::shared_ptr<vexa::VXBuffer>& buffer,
                                        const StreamInfo& stream);
    // Finishes the next picture and fires its fence.
    void fireNext();

private:
    struct Pending {
        std::shared_ptr<vexa::VXBuffer> buffer;
        StreamInfo stream;
        vexa_host::FenceSource fence;
    };
    std::deque<Pending> mPending;
};

}  // namespace vxrun
