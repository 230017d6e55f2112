// MediaLibraries: what the other rooms ask of FFmpeg's libraries. The room libav/ answers. It is a
// file beside the program, vxrun-libav.so, that is loaded by the first question; where it is not
// there, nothing is known.
#pragma once

#include "StreamCut.h"
#include "StreamMap.h"
#include "Vxkit.h"

#include <vxkit/FrameView.h>

#include <memory>
#include <string>

namespace vxrun {

// "libavcodec 59.37.100, libavformat ...": those that this program runs with; or "none of
// FFmpeg's".
std::string mediaLibraries();

// VideoProbe: what can be found out about the best video stream of a file.
//
// Threads  one at a time.
// Owns     the open file.
class VideoProbe {
public:
    virtual ~VideoProbe() = default;

    // Its name at libavcodec. Throws Failure when it is not known.
    virtual std::string codec() const = 0;
    // The size and format of the pictures. Throws Failure when they are not known,
    // Verdict::NotSupported for a format that a FrameView cannot carry.
    virtual PictureFormat picture() const = 0;
    // Whether its pictures have several sizes, as far as the libraries can tell. Once: it decodes
    // the whole file.
    virtual bool changesSize() = 0;
};
// Throws Failure for what is no video file.
std::unique_ptr<VideoProbe> probeVideo(const std::string& path);

// Muxer: a file of access units in a container that libavformat writes. All of it throws Failure.
//
// Life     open(), writeUnit() for each, finish().
// Threads  one at a time.
// Owns     the open file.
class Muxer {
public:
    virtual ~Muxer() = default;
    virtual void open(const std::string& path) = 0;
    virtual void writeUnit(const Frame& frame) = 0;
    virtual void finish() = 0;
};
// One for `container`: a name of libavformat's, or an extension of such files. Throws Failure for
// an unknown one.
std::unique_ptr<Muxer> newMuxer(const std::string& container);

// The answers of the room libav/, which registers them, and its node types, when it is loaded.
struct MediaLibraries {
    decltype(&mediaLibraries) versions;
    decltype(&vxrun::probeVideo) probeVideo;
    decltype(&vxrun::newMuxer) newMuxer;
    decltype(&vxrun::mapStream) mapStream;
    decltype(&vxrun::headersOf) headersOf;
    decltype(&vxrun::cutStream) cutStream;
};
bool registerMediaLibraries(const MediaLibraries& libraries);
// Loads the room, unless it is there already, or this vxrun comes without it. Throws Failure when
// it cannot be loaded.  [any thread]
void loadMediaLibraries();

}  // namespace vxrun
