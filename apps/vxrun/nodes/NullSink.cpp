// sink/null: drops every frame.
#include "Vxkit.h"

#include <vxkit/Sink.h>

namespace vxrun {
namespace {

class NullSink : public Sink {
public:
    using Sink::Sink;

private:
    void consume(const Frame&) override {}
};

const Registered<NullSink> kType("sink/null", "drops every frame", 1, 0);

}  // namespace
}  // namespace vxrun
