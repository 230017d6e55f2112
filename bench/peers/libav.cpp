// What vxrun's work takes with nothing around it: a clip decoded by libavcodec on one thread (and
// its own) and the MD5 of every picture by libavutil on another, with no copy, check or graph in
// between.
//
//     peer_libav CLIP DECODER_THREADS
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/md5.h>
#include <libavutil/pixdesc.h>
}

#include <deque>

#include "Peer.h"

namespace {

using peer::fail;

// At most kInFlight pictures that are decoded and have no checksum yet.
class Pictures {
public:
    void put(AVFrame* picture) {
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait(lock, [this] { return mWaiting.size() < size_t{peer::kInFlight}; });
        mWaiting.push_back(picture);
        mChanged.notify_all();
    }
    AVFrame* take() {
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait(lock, [this] { return !mWaiting.empty(); });
        AVFrame* const picture = mWaiting.front();
        mWaiting.pop_front();
        mChanged.notify_all();
        return picture;
    }

private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::deque<AVFrame*> mWaiting;
};

void sum(AVMD5* md5, const AVFrame& picture) {
    const AVPixFmtDescriptor* const format =
        av_pix_fmt_desc_get(static_cast<AVPixelFormat>(picture.format));
    av_md5_init(md5);
    for (int plane = 0; plane < 3; ++plane) {
        const int width =
            plane > 0 ? AV_CEIL_RSHIFT(picture.width, format->log2_chroma_w) : picture.width;
        const int height =
            plane > 0 ? AV_CEIL_RSHIFT(picture.height, format->log2_chroma_h) : picture.height;
        const uint8_t* row = picture.data[plane];
        for (int y = 0; y < height; ++y, row += picture.linesize[plane]) {
            av_md5_update(md5, row, static_cast<size_t>(width));
        }
    }
    uint8_t digest[16];
    av_md5_final(md5, digest);
}

// Puts the pictures that `codec` has ready.
void drain(AVCodecContext* codec, Pictures* pictures) {
    for (;;) {
        AVFrame* picture = av_frame_alloc();
        if (avcodec_receive_frame(codec, picture) < 0) {
            av_frame_free(&picture);
            return;
        }
        pictures->put(picture);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) fail("usage: peer_libav CLIP DECODER_THREADS");
    AVFormatContext* file = nullptr;
    if (avformat_open_input(&file, argv[1], nullptr, nullptr) < 0 ||
        avformat_find_stream_info(file, nullptr) < 0) {
        fail("the clip cannot be read");
    }
    const AVCodecParameters* const stream = file->streams[0]->codecpar;
    const AVCodec* const decoder = avcodec_find_decoder(stream->codec_id);
    AVCodecContext* codec = avcodec_alloc_context3(decoder);
    avcodec_parameters_to_context(codec, stream);
    codec->thread_count = std::atoi(argv[2]);
    if (avcodec_open2(codec, decoder, nullptr) < 0) fail("the decoder does not open");

    Pictures pictures;
    int64_t count = 0;
    std::thread sums([&] {
        AVMD5* md5 = av_md5_alloc();
        while (AVFrame* picture = pictures.take()) {
            sum(md5, *picture);
            av_frame_free(&picture);
            ++count;
        }
        av_free(md5);
    });
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(file, packet) >= 0) {
        if (packet->stream_index == 0) avcodec_send_packet(codec, packet);
        av_packet_unref(packet);
        drain(codec, &pictures);
    }
    avcodec_send_packet(codec, nullptr);
    drain(codec, &pictures);
    pictures.put(nullptr);
    sums.join();
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&file);
    if (count == 0) fail("no picture");
    std::printf("decode pictures %lld\n", static_cast<long long>(count));
    return 0;
}
