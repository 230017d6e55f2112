// PictureTracker: follows the headers of a stream and tells which pictures it codes, and which of
// them each one refers to.
#pragma once

#include "HeaderTrace.h"
#include "StreamMap.h"

#include <memory>
#include <string>
#include <vector>

namespace vxrun {

// Life     reads the headers of all access units, in decoding order.
// Threads  one at a time.
// Owns     what it has found.
class PictureTracker {
public:
    // One for the codec, which has libavcodec's name. Of those that no one follows each access unit
    // codes one picture.
    static std::unique_ptr<PictureTracker> make(const std::string& codec);
    virtual ~PictureTracker() = default;

    // The headers in front of the first unit.
    virtual void readOutOfBand(const std::vector<TracedHeader>& headers) { (void)headers; }
    // Those of unit `unit`.
    virtual void readUnit(size_t unit, const std::vector<TracedHeader>& headers);

    std::vector<CodedPicture>& pictures() { return mPictures; }
    // The pictures that each access unit shows, in output order among themselves.
    const std::vector<std::vector<size_t>>& shown() const { return mShown; }

protected:
    // Adds the next picture, of the last unit.
    CodedPicture& add(char type);
    // The last unit shows `picture`.
    void show(size_t picture) { mShown.back().push_back(picture); }
    size_t last() const { return mPictures.size() - 1; }
    void beginUnit() { mShown.emplace_back(); }

private:
    std::vector<CodedPicture> mPictures;
    std::vector<std::vector<size_t>> mShown;
};

}  // namespace vxrun
