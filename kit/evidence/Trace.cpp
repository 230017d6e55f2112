#include <vxkit/Trace.h>

namespace vxkit {

TracedFrame::TracedFrame(std::shared_ptr<Trace> trace, std::string maker, size_t number,
                         uint64_t id)
    : mTrace(std::move(trace)), mMaker(std::move(maker)), mNumber(number), mId(id) {
    mTrace->frame("b", mNumber, mMaker, mId);
}

// NOLINTNEXTLINE(bugprone-exception-escape): there is no caller to report a lack of memory to
TracedFrame::~TracedFrame() {
    mTrace->frame("e", mNumber, mMaker, mId);
}

}  // namespace vxkit
