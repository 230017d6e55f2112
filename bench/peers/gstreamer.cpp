// GStreamer, through its C interface: fakesrc, a queue of kInFlight buffers before every further
// element, identity in the middle, fakesink at the end. What the elements can leave out is off.
#include <gst/gst.h>

#include "Peer.h"

namespace {

using namespace peer;

struct Pipeline {
    Pipeline() : bin(gst_pipeline_new(nullptr)) {}
    ~Pipeline() {
        gst_element_set_state(bin, GST_STATE_NULL);
        gst_object_unref(bin);
    }
    GstElement* add(const char* type) {
        GstElement* const element = gst_element_factory_make(type, nullptr);
        if (element == nullptr) fail("an element is missing");
        gst_bin_add(GST_BIN(bin), element);
        return element;
    }
    GstElement* const bin;
};

void link(GstElement* from, GstElement* to) {
    if (!gst_element_link(from, to)) fail("cannot link");
}

void addProbe(GstElement* element, const char* padName, GstPadProbeCallback callback, void* data) {
    GstPad* const pad = gst_element_get_static_pad(element, padName);
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, callback, data, nullptr);
    gst_object_unref(pad);
}

GstPadProbeReturn work(GstPad*, GstPadProbeInfo*, void* us) {
    compute(*static_cast<const int64_t*>(us));
    return GST_PAD_PROBE_OK;
}

GstPadProbeReturn arrived(GstPad*, GstPadProbeInfo*, void* arrivals) {
    static_cast<Arrivals*>(arrivals)->one();
    return GST_PAD_PROBE_OK;
}

// The stages do options.us of work in pad probes, which cost less than signals.
void addWork(const Options& options, GstElement* element, const char* pad) {
    if (options.us > 0) addProbe(element, pad, work, const_cast<int64_t*>(&options.us));
}

GstElement* addSource(const Options& options, Pipeline& pipeline, int64_t count) {
    GstElement* const source = pipeline.add("fakesrc");
    g_object_set(source, "num-buffers", static_cast<int>(count), "sizetype", 1 /* empty */,
                 nullptr);
    addWork(options, source, "src");
    return source;
}

GstElement* addQueue(Pipeline& pipeline, GstElement* from) {
    GstElement* const queue = pipeline.add("queue");
    g_object_set(queue, "max-size-buffers", kInFlight, "max-size-bytes", 0, "max-size-time",
                 G_GUINT64_CONSTANT(0), "silent", TRUE, nullptr);
    link(from, queue);
    return queue;
}

void addSink(const Options& options, Pipeline& pipeline, GstElement* from, Arrivals& arrivals) {
    GstElement* const sink = pipeline.add("fakesink");
    g_object_set(sink, "sync", FALSE, "async", FALSE, "enable-last-sample", FALSE, nullptr);
    link(addQueue(pipeline, from), sink);
    addWork(options, sink, "sink");
    addProbe(sink, "sink", arrived, &arrivals);
}

void play(Pipeline& pipeline) {
    if (gst_element_set_state(pipeline.bin, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        fail("cannot play");
    }
}

void chain(const Options& options) {
    perItem(options, [&](int64_t count) {
        Arrivals arrivals(count);
        Pipeline pipeline;
        GstElement* last = addSource(options, pipeline, count);
        for (int64_t i = 2; i < options.n; ++i) {
            GstElement* const identity = pipeline.add("identity");
            g_object_set(identity, "signal-handoffs", FALSE, nullptr);
            addWork(options, identity, "src");
            link(addQueue(pipeline, last), identity);
            last = identity;
        }
        addSink(options, pipeline, last, arrivals);
        play(pipeline);
        return arrivals.wait();
    });
}

void fanOut(const Options& options) {
    perItem(options, [&](int64_t count) {
        std::vector<std::unique_ptr<Arrivals>> arrivals;
        Pipeline pipeline;
        GstElement* const tee = pipeline.add("tee");
        link(addSource(options, pipeline, count), tee);
        for (int64_t i = 0; i < options.n; ++i) {
            arrivals.push_back(std::make_unique<Arrivals>(count));
            addSink(options, pipeline, tee, *arrivals.back());
        }
        play(pipeline);
        double ns = 0;
        for (auto& branch : arrivals) ns = std::max(ns, branch->wait());
        return ns;
    });
}

// Buffers of 4 KiB, at most kInFlight of them, from one pool for all threads.
void pool(const Options& options) {
    GstBufferPool* const pool = gst_buffer_pool_new();
    GstStructure* const config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, nullptr, 4096, kInFlight, kInFlight);
    if (!gst_buffer_pool_set_config(pool, config) || !gst_buffer_pool_set_active(pool, TRUE)) {
        fail("no pool");
    }
    perItem(options, [&](int64_t count) {
        return onThreads(options, count / options.n, [&] {
            GstBuffer* buffer = nullptr;
            if (gst_buffer_pool_acquire_buffer(pool, &buffer, nullptr) != GST_FLOW_OK) {
                fail("no buffer");
            }
            gst_buffer_unref(buffer);
        });
    });
    gst_buffer_pool_set_active(pool, FALSE);
    gst_object_unref(pool);
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(nullptr, nullptr);
    return peer::run(argc, argv, {{"chain", chain}, {"fanout", fanOut}, {"pool", pool}});
}
