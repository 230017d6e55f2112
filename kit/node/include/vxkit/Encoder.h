// Encoder: the base of nodes that make access units of pictures.
#pragma once

#include <vxkit/Producer.h>

#include <optional>

namespace vxkit {

// A derived class receives pictures of one size and format and gives access units; flow control,
// buffers, counts and the end of the stream are the base's.
//
// Life, threads and owns: as Node. The hooks are called on the event thread.
class Encoder : public Producer {
public:
    using Producer::Producer;

protected:
    // Encodes picture `number`, from 0.
    virtual void encode(const Frame& picture, uint64_t number) = 0;
    // Gives the next access unit, by giveUnit(); false when it needs more pictures.
    bool next() override = 0;
    // From now on next() gives the access units that are still held back.
    virtual void drain() = 0;

private:
    bool feed(const vexa::VXSharedWork& work, uint64_t number) final;
    void feedEnd() final { drain(); }

    std::optional<PictureFormat> mFormat;  // of all pictures  [event thread]
};

}  // namespace vxkit
