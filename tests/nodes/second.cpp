// A node library whose type has the name of one of vxrun's.
#include <vxkit/NodeType.h>
#include <vxkit/Sink.h>

namespace {

struct Second : public vxkit::Sink {
    using Sink::Sink;
    void consume(const vxkit::Frame&) override {}
};
const vxkit::Registered<Second> kType("sink/null", "another sink/null", 1, 0);

}  // namespace
