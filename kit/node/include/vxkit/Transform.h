// Transform: the base of nodes that make one frame of each input.
#pragma once

#include <vxkit/Producer.h>

namespace vxkit {

// Life, threads and owns: as Node. The hooks are called on the event thread.
class Transform : public Producer {
public:
    using Producer::Producer;

protected:
    // Gives the frame that `input`, number `number` from 0, becomes.
    virtual void transform(const Frame& input, uint64_t number) = 0;

private:
    bool feed(const vexa::VXSharedWork& work, uint64_t number) final;
};

}  // namespace vxkit
