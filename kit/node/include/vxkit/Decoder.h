// Decoder: the base of nodes that make pictures of access units.
#pragma once

#include <vxkit/Producer.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vxkit {

// Configs of everything that decodes.
extern const TextKey kFormat;
extern const FlagKey kTolerateErrors;

// What a decoder states about one of its pictures. A plain value.
struct DecodedPicture {
    PictureFormat format;
    int64_t pts = UnitInfo::kNoTime;  // that of its access unit
    std::string profile = {};         // see StreamInfo
    Rational sar = {0, 1};            // sample aspect ratio; 0/1: that of the container
};

// A derived class has two operations: decode() receives an access unit, next() gives a picture.
// Flow control, buffers, counts, timestamps, the commands "flush" and "drain", the configs "format"
// and "tolerate_errors", the verdict on errors and the end of the stream are the base's.
//
// Life, threads and owns: as Node. The hooks are called on the event thread.
class Decoder : public Producer {
public:
    static std::vector<const ConfigKey*> commonConfigs();
    static std::vector<EntryKey> commonEntries();

    using Producer::Producer;

protected:
    // Decodes an access unit. One that it cannot accept yet it is given again after pause(). Throws
    // Failure when decoding cannot go on, with
    // Verdict::NotSupported for a stream that the decoder is not made for.
    virtual void decode(const AccessUnit& unit) = 0;
    // Gives the next picture in output order, by give(); false when it needs more units.
    bool next() override = 0;
    // From now on next() gives the pictures that are still held back, then false once. More units
    // may follow. Only after a decode(). By default nothing has to be done for that.
    virtual void drain() {}
    // Drops the pictures that are held back. Only after a decode(). By default they are drained.
    virtual void flush();

    // Gives a picture; `fill` copies its samples as soon as a buffer is free, and before any other
    // hook is called.
    void give(const DecodedPicture& picture, std::function<void(const FrameView& output)> fill);
    // The same for one that is in a buffer of newPool() already.
    void give(const DecodedPicture& picture, std::shared_ptr<PoolBuffer> buffer);
    // Reports an error in the stream: the run fails at its end, unless "tolerate_errors" is set.
    void noteError(const std::string& text);
    const std::string& firstError() const { return mFirstError; }

private:
    bool feed(const vexa::VXSharedWork& work, uint64_t number) final;
    void feedEnd() final { drain(); }
    void finish(bool nothing) final;
    bool obeyCommands(uint64_t number);
    void noteTaken(const DecodedPicture& picture);
    std::shared_ptr<StreamInfo> nextStream(const DecodedPicture& picture);

    // [event thread]
    std::deque<std::string> mCommands;  // still to be obeyed
    bool mIsStarted = false;            // decode() has been called
    Rational mTimeBase = {1, 1};        // of the access units
    Rational mFrameRate = {0, 1};       // of the stream, and its pictures' sample aspect ratio
    Rational mSar = {0, 1};
    uint64_t mPictures = 0;                         // that were given
    int64_t mTime = -1;                             // of the last, in frames
    std::map<int64_t, Clock::time_point> mTakenAt;  // when a unit was, by its pts
    uint64_t mErrors = 0;
    std::string mFirstError;
};

}  // namespace vxkit
