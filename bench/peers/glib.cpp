// GLib: a main context with one thread, and functions that other threads ask it to invoke.
#include <glib.h>

#include "Peer.h"

namespace {

using namespace peer;

class Loop {
public:
    ~Loop() {
        g_main_loop_quit(mLoop);
        mThread.join();
        g_main_loop_unref(mLoop);
        g_main_context_unref(mContext);
    }
    void post(GSourceFunc function, void* data) {
        g_main_context_invoke_full(mContext, G_PRIORITY_DEFAULT, function, data, nullptr);
    }

private:
    GMainContext* const mContext = g_main_context_new();
    GMainLoop* const mLoop = g_main_loop_new(mContext, TRUE);
    std::thread mThread{[this] {
        g_main_context_push_thread_default(mContext);
        g_main_loop_run(mLoop);
        g_main_context_pop_thread_default(mContext);
    }};
};

Arrivals* sArrivals = nullptr;

gboolean arrived(void* item) {
    g_rc_box_release(item);
    sArrivals->one();
    return G_SOURCE_REMOVE;
}

void post(const Options& options) {
    Loop loop;
    perPost(options, &sArrivals, [&] { loop.post(arrived, g_rc_box_new0(int)); });
}

struct Trip {
    explicit Trip(const Options& options) : trips(options) {}
    RoundTrips trips;
    Loop here, there;

    static gboolean send(void* data) {
        auto* const trip = static_cast<Trip*>(data);
        trip->trips.sent();
        trip->there.post(sendBack, data);
        return G_SOURCE_REMOVE;
    }
    static gboolean sendBack(void* data) {
        static_cast<Trip*>(data)->here.post(received, data);
        return G_SOURCE_REMOVE;
    }
    static gboolean received(void* data) {
        auto* const trip = static_cast<Trip*>(data);
        return trip->trips.received() ? send(data) : G_SOURCE_REMOVE;
    }
};

void roundTrip(const Options& options) {
    Trip trip(options);
    trip.here.post(Trip::send, &trip);
    trip.trips.report();
}

}  // namespace

int main(int argc, char** argv) {
    return peer::run(argc, argv, {{"post", post}, {"roundtrip", roundTrip}});
}
