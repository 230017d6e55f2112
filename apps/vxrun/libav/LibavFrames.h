// LibavFrames: pictures, access units and stream infos between vxkit and FFmpeg's libraries.
#pragma once

#include "Libav.h"

#include <vxkit/FrameView.h>

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <memory>

namespace vxrun {

AVRational asLibav(Rational value);
Rational fromLibav(AVRational value);

// The format of such pictures. Throws Failure, Verdict::NotSupported, for those that a FrameView
// cannot carry, see PixelFormat.
PictureFormat formatOf(AVPixelFormat pixels, int width, int height);
// AV_PIX_FMT_NONE for a block of bytes.
AVPixelFormat pixelsOf(const PictureFormat& format);

// A padded copy of the picture, as libswscale and encoders require it. Throws Failure for a block.
Libav<AVFrame> copyOf(const FrameView& picture);
// Copies `source` into the picture, which has its format.
void copyTo(const FrameView& picture, const AVFrame& source);

// The stream of access units that libavformat or libavcodec made.
struct LibavStreamInfo : public BitstreamInfo {
    Libav<AVCodecParameters> parameters = made(avcodec_parameters_alloc());

    // Fills in the base's members, except times, from the parameters.
    void describe();
};

// The properties of such an access unit, its side data among them.
struct LibavUnitInfo : public UnitInfo {
    // Those of `packet`.
    explicit LibavUnitInfo(const AVPacket& packet);

    Libav<AVPacket> properties = made(av_packet_alloc());  // without data
};

// A padded copy of the access unit, with its properties: decoders read beyond the end of their
// input.
Libav<AVPacket> packetOf(const AccessUnit& unit);
// The parameters of a stream, whatever made it.
Libav<AVCodecParameters> parametersOf(const BitstreamInfo& stream);

}  // namespace vxrun
