// sink/null: takes every frame and drops it.
#include "AppNode.h"

namespace vxrun {
namespace {

class NullSink final : public Sink {
public:
    explicit NullSink(NodeArguments arguments) : Sink(std::move(arguments)) {}
    ~NullSink() override { teardown(); }

private:
    void consume(const Payload&, const StreamInfo&, const vexa::VXFrameInfo&) override {}
};

}  // namespace

extern const NodeType kNullSink = {"sink/null", "drops every frame", 1, 0, {}, makeNode<NullSink>};

}  // namespace vxrun
