// Boost.Asio: an io_context with one thread per stage, and items that are posted from one to the
// next.
#include <boost/asio.hpp>
#include <deque>
#include <functional>

#include "Peer.h"

namespace {

using namespace peer;

// Runs what is posted to it until it goes.
class Loop {
public:
    ~Loop() { end(); }
    // What is still posted afterwards is dropped.
    void end() {
        mKeep.reset();
        if (mThread.joinable()) mThread.join();
    }
    template <typename Function>
    void post(Function function) {
        boost::asio::post(mContext, std::move(function));
    }

private:
    boost::asio::io_context mContext{1};  // for one thread
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> mKeep{
        mContext.get_executor()};
    std::thread mThread{[this] { mContext.run(); }};
};

// Sends on what waits while there is room downstream, and reports to the sender of each item that
// it is done, as nodes do. To report only when a full hop has room again is as fast.
struct Stage {
    Stage* previous = nullptr;
    Stage* next = nullptr;
    int inFlight = 0;
    std::deque<Item> waiting;
    int64_t toSend = 0;  // the source's
    int64_t us = 0;
    Arrivals* arrivals = nullptr;  // the sink's
    Loop loop;

    void receive(Item item) {
        waiting.push_back(std::move(item));
        pump();
    }
    void release() {
        --inFlight;
        pump();
    }
    void pump() {
        while ((toSend > 0 || !waiting.empty()) && (!next || inFlight < kInFlight)) {
            Item item;
            if (toSend > 0) {
                --toSend;
                item = makeItem();
            } else {
                item = std::move(waiting.front());
                waiting.pop_front();
            }
            compute(us);
            if (next) {
                ++inFlight;
                next->loop.post([stage = next, item = std::move(item)]() mutable {
                    stage->receive(std::move(item));
                });
            } else {
                arrivals->one();
            }
            if (previous) previous->loop.post([stage = previous] { stage->release(); });
        }
    }
};

void chain(const Options& options) {
    perItem(options, [&](int64_t count) {
        Arrivals arrivals(count);
        std::deque<Stage> stages(static_cast<size_t>(options.n));
        for (size_t i = 0; i < stages.size(); ++i) {
            if (i > 0) stages[i].previous = &stages[i - 1];
            if (i + 1 < stages.size()) stages[i].next = &stages[i + 1];
            stages[i].us = options.us;
        }
        stages.back().arrivals = &arrivals;
        stages.front().loop.post([&] {
            stages.front().toSend = count;
            stages.front().pump();
        });
        const double ns = arrivals.wait();
        for (Stage& stage : stages)
            stage.loop.end();  // before one goes that another still posts to
        return ns;
    });
}

void postItems(const Options& options) {
    Arrivals* arrivals = nullptr;
    Loop loop;
    perPost(options, &arrivals,
            [&] { loop.post([&arrivals, item = makeItem()] { arrivals->one(); }); });
}

void roundTrip(const Options& options) {
    RoundTrips trips(options);
    std::function<void(Item)> send;
    Loop here, there;
    send = [&](Item item) {
        trips.sent();
        there.post([&, item = std::move(item)]() mutable {
            here.post([&, item = std::move(item)]() mutable {
                if (trips.received()) send(std::move(item));
            });
        });
    };
    here.post([&] { send(makeItem()); });
    trips.report();
}

}  // namespace

int main(int argc, char** argv) {
    return peer::run(argc, argv, {{"chain", chain}, {"post", postItems}, {"roundtrip", roundTrip}});
}
