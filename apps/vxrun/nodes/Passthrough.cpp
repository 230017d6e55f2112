// transform/passthrough: hands on what it gets; the payload is shared, not copied.
#include "AppNode.h"

namespace vxrun {
namespace {

class Passthrough : public AppNode {
public:
    using AppNode::AppNode;

private:
    void process(const SharedWorks& inputs) override {
        for (const auto& input : inputs) sendOutput(shareOf(*input));
    }
};

const bool kAdded = addNodeType<Passthrough>("transform/passthrough", "hands every frame on", 1, 1);

}  // namespace
}  // namespace vxrun
