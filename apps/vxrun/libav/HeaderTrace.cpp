#include "HeaderTrace.h"

#include "Text.h"

#include <cctype>
#include <sstream>

namespace vxrun {
namespace {

// Adds a line of the filter: an element, "24  show_existing_frame    1 = 1", or the name of a
// header that follows.
void addLine(const std::string& line, std::vector<TracedHeader>* headers) {
    std::istringstream words(line);
    std::string position, element;
    words >> position;
    if (position.empty() || position == "Packet:") return;
    const bool isElement = std::isdigit(static_cast<unsigned char>(position[0])) != 0;
    const size_t equals = line.rfind(" = ");
    if (!isElement || equals == std::string::npos || !(words >> element)) {
        headers->push_back({line, {}});
        return;
    }
    if (headers->empty()) return;
    const int64_t value = std::strtoll(line.c_str() + equals + 3, nullptr, 10);
    headers->back().elements.emplace_back(element, value);
}

// While this lives, what the filter logs on this thread becomes headers.
class Listener {
public:
    explicit Listener(std::vector<TracedHeader>* headers) {
        CodecLog::traceHere([headers](const std::string& line) { addLine(line, headers); });
    }
    ~Listener() { CodecLog::traceHere({}); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
};

}  // namespace

int64_t TracedHeader::value(const std::string& element, int64_t otherwise) const {
    for (auto i = elements.rbegin(); i != elements.rend(); ++i) {
        if (i->first == element) return i->second;
    }
    return otherwise;
}

std::string TracedHeader::text() const {
    std::string lines;
    for (const auto& [element, number] : elements)
        lines += concat("  ", element, " = ", number, "\n");
    return lines;
}

HeaderTrace::HeaderTrace(const LibavStreamInfo& stream) {
    AVBSFContext* filter = nullptr;
    const Listener listener(&mOutOfBand);
    if (av_bsf_alloc(av_bsf_get_by_name("trace_headers"), &filter) < 0) throw std::bad_alloc();
    mFilter.reset(filter);
    if (avcodec_parameters_copy(filter->par_in, stream.parameters.get()) < 0) {
        throw std::bad_alloc();
    }
    if (av_bsf_init(filter) < 0) mFilter = nullptr;
}

std::vector<TracedHeader> HeaderTrace::read(const AVPacket& unit) {
    std::vector<TracedHeader> headers;
    if (mFilter == nullptr) return headers;
    const Listener listener(&headers);
    const auto packet = made(av_packet_clone(&unit));
    if (av_bsf_send_packet(mFilter.get(), packet.get()) < 0) return headers;
    while (av_bsf_receive_packet(mFilter.get(), packet.get()) == 0) av_packet_unref(packet.get());
    return headers;
}

}  // namespace vxrun
