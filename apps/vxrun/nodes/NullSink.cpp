// sink/null: takes every frame and drops it.
#include "AppNode.h"

namespace vxrun {
namespace {

class NullSink : public Sink {
public:
    using Sink::Sink;

private:
    void consume(const Frame&) override {}
};

const bool kAdded = addNodeType<NullSink>("sink/null", "drops every frame", 1, 0);

}  // namespace
}  // namespace vxrun
