// Source: the base of nodes without inputs.
#pragma once

#include <vxkit/Producer.h>

namespace vxkit {

// Life, threads and owns: as Node. The hooks are called on the event thread.
class Source : public Producer {
public:
    using Producer::Producer;

protected:
    // Gives the next frame; false at the end. Called in open(), too, by sources that need one frame.
    bool next() override = 0;
};

}  // namespace vxkit
