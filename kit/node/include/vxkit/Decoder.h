// Decoder: the base of nodes that make pictures of access units.
#pragma once

#include <vxkit/Producer.h>

#include <deque>
#include <string>
#include <vector>

namespace vxkit {

// A derived class receives access units and gives pictures; flow control, buffers, counts, the
// commands "flush" and "drain" and the end of the stream are the base's.
//
// Life, threads and owns: as Node. The hooks are called on the event thread.
class Decoder : public Producer {
public:
    using Producer::Producer;

    // The entries of every decoder, for Registered.
    static std::vector<EntryKey> commands();

protected:
    // Decodes an access unit; may report damage, and throws Failure when decoding cannot go on.
    virtual void decode(const AccessUnit& unit) = 0;
    // Gives the next picture in output order, by givePicture(); false when it needs more units.
    bool next() override = 0;
    // From now on next() gives the pictures that are still held back, then false once. More units
    // may follow. Only after a decode().
    virtual void drain() = 0;
    // Drops the pictures that are held back. Only after a decode().
    virtual void flush() = 0;

private:
    bool feed(const vexa::VXSharedWork& work, uint64_t number) final;
    void feedEnd() final { drain(); }
    bool obeyCommands(uint64_t number);

    // [event thread]
    std::deque<std::string> mCommands;  // still to be obeyed
    bool mIsStarted = false;            // decode() has been called
};

}  // namespace vxkit
