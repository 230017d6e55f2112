// transform/passthrough: passes every frame on; the buffer is shared, not copied.
#include "Vxkit.h"

#include <vxkit/Node.h>

namespace vxrun {
namespace {

class Passthrough : public Node {
public:
    using Node::Node;

private:
    void process(const SharedWorks& inputs) override {
        for (const auto& input : inputs) sendOutput(shareOf(*input));
    }
};

const Registered<Passthrough> kType("transform/passthrough", "passes every frame on", 1, 1);

}  // namespace
}  // namespace vxrun
