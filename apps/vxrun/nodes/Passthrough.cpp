// transform/passthrough: hands on what it gets; the payload is shared, not copied.
#include "AppNode.h"

namespace vxrun {
namespace {

class Passthrough final : public AppNode {
public:
    explicit Passthrough(NodeArguments arguments) : AppNode(std::move(arguments)) {}
    ~Passthrough() override { teardown(); }

private:
    void process(const SharedWorks& inputs, Works* outputs) override {
        for (const auto& input : inputs) {
            outputs->push_back(passOn(*input));
            countFrame(input->frameInfo());
        }
    }
};

}  // namespace

extern const NodeType kPassthrough = {"transform/passthrough", "hands every frame on", 1, 1, {},
                                      makeNode<Passthrough>};

}  // namespace vxrun
