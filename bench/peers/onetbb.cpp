// oneTBB's flow graph: serial nodes, which its own pool of threads executes, and a limiter over the
// whole chain.
#include <oneapi/tbb/flow_graph.h>

#include "Peer.h"

namespace {

using namespace peer;
namespace flow = oneapi::tbb::flow;

void chain(const Options& options) {
    perItem(options, [&](int64_t count) {
        Arrivals arrivals(count);
        flow::graph graph;
        int64_t toSend = count;
        flow::input_node<Item> source(graph, [&](oneapi::tbb::flow_control& control) -> Item {
            if (toSend-- == 0) {
                control.stop();
                return nullptr;
            }
            compute(options.us);
            return makeItem();
        });
        flow::limiter_node<Item> limiter(graph, static_cast<size_t>(kInFlight * (options.n - 1)));
        flow::make_edge(source, limiter);
        using Stage = flow::function_node<Item, Item>;
        std::vector<std::unique_ptr<Stage>> stages;
        flow::sender<Item>* last = &limiter;
        for (int64_t i = 2; i < options.n; ++i) {
            stages.push_back(std::make_unique<Stage>(graph, flow::serial, [&](Item item) {
                compute(options.us);
                return item;
            }));
            flow::make_edge(*last, *stages.back());
            last = stages.back().get();
        }
        flow::function_node<Item, flow::continue_msg> sink(graph, flow::serial, [&](const Item&) {
            compute(options.us);
            arrivals.one();
            return flow::continue_msg();
        });
        flow::make_edge(*last, sink);
        flow::make_edge(sink, limiter.decrementer());
        source.activate();
        graph.wait_for_all();
        return arrivals.wait();
    });
}

}  // namespace

int main(int argc, char** argv) {
    return peer::run(argc, argv, {{"chain", chain}});
}
