// What vxrun's work takes with nothing around it: a clip decoded by libavcodec on one thread (and
// its own) and the MD5 of every picture by libavutil on another, with no copy, check or graph in
// between. Prints the MD5s, and their share of the processor time.
//
//     peer_libav CLIP DECODER_THREADS      0: as many as libavcodec likes
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/md5.h>
#include <libavutil/pixdesc.h>
}

#include <time.h>

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

// Prints the MD5 of the visible samples.
void sum(AVMD5* md5, const AVFrame& picture) {
    const auto format = static_cast<AVPixelFormat>(picture.format);
    const AVPixFmtDescriptor* const layout = av_pix_fmt_desc_get(format);
    av_md5_init(md5);
    for (int plane = 0; plane < av_pix_fmt_count_planes(format); ++plane) {
        const bool chroma = plane == 1 || plane == 2;
        const int height =
            chroma ? AV_CEIL_RSHIFT(picture.height, layout->log2_chroma_h) : picture.height;
        const int rowBytes = av_image_get_linesize(format, picture.width, plane);
        const uint8_t* row = picture.data[plane];
        for (int y = 0; y < height; ++y, row += picture.linesize[plane]) {
            av_md5_update(md5, row, static_cast<size_t>(rowBytes));
        }
    }
    uint8_t digest[16];
    av_md5_final(md5, digest);
    for (const uint8_t byte : digest) std::printf("%02x", byte);
    std::printf("\n");
}

double processorSeconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
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
    av_log_set_level(AV_LOG_ERROR);
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
    double hashing = 0;
    std::thread sums([&] {
        AVMD5* md5 = av_md5_alloc();
        while (AVFrame* picture = pictures.take()) {
            sum(md5, *picture);
            av_frame_free(&picture);
        }
        av_free(md5);
        hashing = processorSeconds(CLOCK_THREAD_CPUTIME_ID);
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
    const double all = processorSeconds(CLOCK_PROCESS_CPUTIME_ID);
    std::printf("decode md5_percent %.1f\n", 100 * hashing / all);
    return 0;
}
