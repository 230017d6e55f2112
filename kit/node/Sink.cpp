#include <vxkit/Sink.h>

namespace vxkit {

void Sink::process(const SharedWorks& inputs) {
    for (const auto& work : inputs) {
        const Frame frame(*work);
        consume(frame);
        const bool last = (frame.info.flags & vexa::VXFrameInfo::FLAG_END_OF_STREAM) != 0;
        if (last) finish();
        countFrame(frame.info);
        if (last) signalComplete();
    }
}

}  // namespace vxkit
