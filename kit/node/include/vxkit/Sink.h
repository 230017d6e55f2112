// Sink: the base of nodes with one input and no output. Reports completion after the last frame.
#pragma once

#include <vxkit/Node.h>

namespace vxkit {

// Life, threads and owns: as Node. The hooks are called on the event thread.
class Sink : public Node {
public:
    using Node::Node;

protected:
    virtual void consume(const Frame& frame) = 0;
    // The last frame has been consumed.
    virtual void finish() {}

private:
    void process(const SharedWorks& inputs) final;
};

}  // namespace vxkit
