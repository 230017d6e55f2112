// libvxbase: the same work as its peers do, through graphs of nodes (default flow control:
// kInFlight works on their way over one hop), events and pools; and what only the library itself
// can report.
#include <VXBuffer.h>
#include <VXGraph.h>
#include <time.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <fstream>

#include "Peer.h"

namespace {

using namespace peer;
using namespace vexa;

// ---- Graphs -----------------------------------------------------------------------------------

// The parameters of the one graph that runs.
struct Plan {
    Plan(int64_t w, int64_t sinks) : works(w) {
        for (int64_t i = 0; i < sinks; ++i) arrivals.emplace_back(works);
        sCurrent = this;
    }
    // ns from the first work to the last, at the slowest sink.
    double wait() { return slowest(arrivals); }

    static inline Plan* sCurrent = nullptr;
    int64_t works;                  // from the source
    int64_t us = 0;                 // of arithmetic in each node, per work
    int64_t pauseUs = 0;            // of sleep in the source, per work
    RoundTrips* trips = nullptr;    // one work at a time; the next when the last has come back
    std::deque<Arrivals> arrivals;  // one for each sink
    size_t sinks = 0;               // set up so far
    Arrivals started{1};            // the source, which starts last
};

class Node : public VXNode {
public:
    using VXNode::VXNode;
    ~Node() override { teardown(); }

protected:
    VXError onSetup(bool) override {
        for (const auto& port : inputPortInfos()) addInputPort(port.name, {port.format});
        for (const auto& port : outputPortInfos()) addOutputPort(port.name, {port.format});
        if (outputPorts().empty()) mArrivals = &mPlan.arrivals[mPlan.sinks++];
        return VX_OK;
    }
    VXError onStart() override { return VX_OK; }
    VXError onStop() override { return VX_OK; }
    VXError onProcess(std::list<std::shared_ptr<VXSharedWork>> inputs,
                      std::list<std::unique_ptr<VXWork>>* outputs) override {
        for (const auto& input : inputs) {
            compute(mPlan.us);
            if (mArrivals == nullptr) {
                auto work = std::make_unique<VXWork>();
                work->frameInfo() = input->frameInfo();
                work->setPayload(input->payload<int>());
                outputs->push_back(std::move(work));
            } else {
                mArrivals->one();
                if (input->frameInfo().flags & VXFrameInfo::FLAG_END_OF_STREAM) signalComplete();
            }
        }
        return VX_OK;
    }
    void onDrain() override {}
    void onFlush() override {}

    Plan& mPlan = *Plan::sCurrent;

private:
    Arrivals* mArrivals = nullptr;  // a sink's
};

class Source : public Node {
public:
    using Node::Node;
    ~Source() override { teardown(); }

    VXError countAvailablePendingInputWorks(unsigned long, unsigned long* actualCount,
                                            bool* hasEOS) override {
        // Asked after the release of the work that is out.
        if (mOut && mPlan.arrivals[0].count() == mSent) {
            mOut = false;
            if (!mPlan.trips->received()) mPlan.works = mSent;
        }
        *actualCount = !mOut && mSent < mPlan.works ? 1 : 0;
        *hasEOS = mSent + 1 == mPlan.works;
        return VX_OK;
    }
    VXError getPendingInputWorks(unsigned long,
                                 std::list<std::shared_ptr<VXSharedWork>>* works) override {
        if (mPlan.pauseUs > 0) usleep(static_cast<useconds_t>(mPlan.pauseUs));
        VXFrameInfo info;
        if (++mSent == mPlan.works) info.flags = VXFrameInfo::FLAG_END_OF_STREAM;
        works->push_back(std::make_shared<VXSharedWork>(VXAuxInfo(), info));
        if (mPlan.trips) {
            mOut = true;
            mPlan.trips->sent();
        }
        return VX_OK;
    }

protected:
    VXError onStart() override {
        mPlan.started.one();
        return VX_OK;
    }
    VXError onProcess(std::list<std::shared_ptr<VXSharedWork>> inputs,
                      std::list<std::unique_ptr<VXWork>>* outputs) override {
        const VXError result = Node::onProcess(std::move(inputs), outputs);
        for (auto& work : *outputs) work->setPayload(makeItem());
        return result;
    }

private:
    int64_t mSent = 0;
    bool mOut = false;  // of a round trip: the work is on its way
};

template <typename T>
struct Factory : VXNodeBaseFactory {
    using VXNodeBaseFactory::VXNodeBaseFactory;
    void createNode(const std::string& name, std::unique_ptr<VXNodeDescriptor> descriptor,
                    std::unique_ptr<VXNode>* node) override {
        *node = std::make_unique<T>(name, std::move(descriptor));
    }
};
Factory<Node> gNodes("bench/node");
Factory<Source> gSources("bench/source");

// A graph that runs from here to the end of its scope.
class Run {
public:
    explicit Run(VXGraphInfo info) : mGraph(VXGraph::BuildFromGraphInfo(info, mListener)) {
        if (mGraph == nullptr) fail("no graph");
        mGraph->runAsync();
    }
    ~Run() { mGraph->stop(); }

private:
    struct Listener final : VXGraph::Listener {
        void onGraphError(std::string message) override { fail(message.c_str()); }
        void onGraphComplete() override {}
    };
    const std::shared_ptr<Listener> mListener = std::make_shared<Listener>();
    const std::shared_ptr<VXGraph> mGraph;
};

void add(VXGraphInfo* info, const char* type, int64_t number, bool input, bool output) {
    const std::string name = "n" + std::to_string(number);
    auto descriptor = std::make_unique<VXNodeDescriptor>();
    descriptor->type = type;
    descriptor->name = name;
    if (input) descriptor->inputPorts.push_back({name + ".in", "bench"});
    if (output) descriptor->outputPorts.push_back({name + ".out", "bench"});
    info->nodes.push_back(std::move(descriptor));
}

void connect(VXGraphInfo* info, int64_t from, int64_t to) {
    info->connections["n" + std::to_string(from) + ".out"].push_back("n" + std::to_string(to) +
                                                                     ".in");
}

VXGraphInfo chainOf(int64_t nodes) {
    VXGraphInfo info{"bench", {}, {}};
    for (int64_t i = 0; i < nodes; ++i) {
        add(&info, i == 0 ? "bench/source" : "bench/node", i, i > 0, i + 1 < nodes);
        if (i > 0) connect(&info, i - 1, i);
    }
    return info;
}

VXGraphInfo fanOutTo(int64_t sinks) {
    VXGraphInfo info{"bench", {}, {}};
    add(&info, "bench/source", 0, false, true);
    for (int64_t i = 1; i <= sinks; ++i) {
        add(&info, "bench/node", i, true, false);
        connect(&info, 0, i);
    }
    return info;
}

// ---- Works --------------------------------------------------------------------------------------

double runChain(const Options& options, int64_t count) {
    Plan plan(count, 1);
    plan.us = options.us;
    const Run run(chainOf(options.n));
    return plan.wait();
}

void chain(const Options& options) {
    perItem(options, [&](int64_t count) { return runChain(options, count); });
}

void fanOut(const Options& options) {
    perItem(options, [&](int64_t count) {
        Plan plan(count, options.n);
        const Run run(fanOutTo(options.n));
        return plan.wait();
    });
}

// There with a work, back with its release.
void roundTrip(const Options& options) {
    RoundTrips trips(options);
    Plan plan(INT64_MAX, 0);
    plan.arrivals.emplace_back(Arrivals::kAnyNumber);
    plan.trips = &trips;
    {
        const Run run(chainOf(2));
        trips.wait();
    }
    trips.report();
}

// Build, start, stop and destroy.
void lifeCycle(const Options& options) {
    perCall(options, [&] {
        Plan plan(0, 1);
        const Run run(chainOf(options.n));
        plan.started.wait();
    });
}

// ---- What a graph does to the rest of the system ------------------------------------------------

// How often the threads of this process, but for the calling one, have gone to sleep or been
// switched out so far.
int64_t switchesOfOthers() {
    int64_t switches = 0;
    const std::string self = std::to_string(gettid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == self) continue;
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                switches += std::atoll(line.c_str() + line.find(':') + 1);
            }
        }
    }
    return switches;
}

// A graph in which nothing moves: context switches of all its threads within a second.
void idle(const Options& options) {
    Plan plan(0, 1);
    const Run run(chainOf(options.n));
    plan.started.wait();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // until the start-up has settled
    const int64_t before = switchesOfOthers();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    report(options, "switches", static_cast<double>(switchesOfOthers() - before));
}

int64_t processorNs() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return time.tv_sec * int64_t{1000000000} + time.tv_nsec;
}

// Works at the pace of a decoder, which leaves every thread asleep in between: the processor time
// of the whole process per work, which is the graph's (and the source's own sleep).
void paced(const Options& options) {
    Plan plan(std::max<int64_t>(10, options.ms / 5), 1);
    plan.pauseUs = 5000;
    const int64_t works = plan.works;
    const Run run(chainOf(options.n));
    plan.started.wait();
    const int64_t from = processorNs();
    plan.wait();
    report(options, "cpu_ns_per_item",
           static_cast<double>(processorNs() - from) / static_cast<double>(works));
}

// Log gates on a work's way over one hop, and what a closed one costs (with its loop).
void gates(const Options& options) {
    static std::atomic<int64_t> sMessages{0};
    constexpr int64_t kWorks = 10000, kGates = 100000000;
    __android_log_set_logger([](const __android_log_message*) { ++sMessages; });
    gVXLogLevel = 0xff;
    runChain(options, kWorks);
    gVXLogLevel = 0;
    report(options, "gates_per_hop",
           static_cast<double>(sMessages) / kWorks / static_cast<double>(options.n - 1));
    constexpr char kLogTag[] = "bench";
    const int64_t from = nowNs();
    for (int64_t i = 0; i < kGates; ++i) VX_LOGT("%s", kLogTag);
    report(options, "ns_per_gate", static_cast<double>(nowNs() - from) / kGates);
}

// ---- Events and pools alone ---------------------------------------------------------------------

// A queue, and a handler that calls a function for every event.
class Receiver {
public:
    template <typename Function>
    Receiver(const char* name, Function function)
        : mQueue(std::make_shared<xc2::EventQueue>(name)),
          mHandler(std::make_shared<Handler<Function>>(function)) {
        mQueue->start(0);
        mHandler->attach(mQueue);
    }
    ~Receiver() { mQueue->stop(); }
    void post(std::shared_ptr<xc2::Event> event) { mHandler->postAsync(std::move(event)); }

private:
    template <typename Function>
    struct Handler : virtual xc2::EventHandler {
        explicit Handler(Function f) : function(std::move(f)) {}
        xc2::XC2Status onEvent(std::shared_ptr<xc2::Event> event) override {
            function(std::move(event));
            return xc2::XC2_OK;
        }
        Function function;
    };
    const std::shared_ptr<xc2::EventQueue> mQueue;
    const std::shared_ptr<xc2::EventHandler> mHandler;
};

using EventPtr = std::shared_ptr<xc2::Event>;

void post(const Options& options) {
    Arrivals* arrivals = nullptr;
    Receiver receiver("bench", [&](const EventPtr&) { arrivals->one(); });
    perPost(options, &arrivals, [&] { receiver.post(std::make_shared<xc2::Event>(1)); });
}

void roundTripOfEvents(const Options& options) {
    RoundTrips trips(options);
    Receiver* other = nullptr;
    bool first = true;
    Receiver here("here", [&](EventPtr event) {
        if (!std::exchange(first, false) && !trips.received()) return;
        trips.sent();
        other->post(std::move(event));
    });
    Receiver there("there", [&](EventPtr event) { here.post(std::move(event)); });  // ends first
    other = &there;
    here.post(std::make_shared<xc2::Event>(1));
    trips.report();
}

void pool(const Options& options, const char* backEnd) {
    const auto pool = VXLinearBufferPool::Create(backEnd, DEFAULT);
    pool->setMaxSlots(kInFlight);
    pool->setSize(4096);
    perFetch(options, [&] {
        std::shared_ptr<VXBuffer> buffer;
        pool->fetch(&buffer);
        return buffer;
    });
}

}  // namespace

int main(int argc, char** argv) {
    return peer::run(argc, argv,
                     {{"chain", chain},
                      {"fanout", fanOut},
                      {"roundtrip", roundTrip},
                      {"roundtrip_events", roundTripOfEvents},
                      {"post", post},
                      {"pool", [](const Options& options) { pool(options, "xcodec2"); }},
                      {"pool_dmabuf", [](const Options& options) { pool(options, "dmabuf"); }},
                      {"lifecycle", lifeCycle},
                      {"idle", idle},
                      {"paced", paced},
                      {"gates", gates}});
}
