// Source: the base of nodes without inputs.
#pragma once

#include <vxkit/Producer.h>

#include <string>

namespace vxkit {

// Life, threads and owns: as Node. next() is first called after open(), on the same thread; from
// then on the hooks are called on the event thread.
class Source : public Producer {
public:
    using Producer::Producer;

protected:
    // Gives the next frame; false at the end, or when there is none yet, after pause().
    bool next() override = 0;
    // The Failure's text when there is no first frame: a node that has none would never be
    // scheduled.
    virtual std::string nothing() const { return "no frame in the stream"; }

private:
    void opened() final {
        if (!next() && !isPaused()) throw Failure(nothing());
    }
};

}  // namespace vxkit
