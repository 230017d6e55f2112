// The floors: the bare actor (one thread per stage, a ring per hop, yields, then a futex), a mutex
// and a condition variable around a queue per hop, a plain free list, and threads alone.
#include "../floors.h"

#include <array>

#include "Peer.h"

namespace {

using namespace peer;

using Plain = floors::PlainQueue<Item>;
using Ring = floors::Ring<Item, kInFlight>;

template <typename Queue>
void chain(const Options& options) {
    perItem(options, [&](int64_t count) {
        Arrivals arrivals(count);
        std::deque<Queue> hops(static_cast<size_t>(options.n - 1));
        std::vector<std::thread> threads;
        for (size_t i = 1; i < hops.size(); ++i) {
            threads.emplace_back([&, i] {
                while (Item item = hops[i - 1].pop()) {
                    compute(options.us);
                    hops[i].push(std::move(item));
                }
                hops[i].push(nullptr);
            });
        }
        threads.emplace_back([&] {
            while (hops.back().pop() != nullptr) {
                compute(options.us);
                arrivals.one();
            }
        });
        for (int64_t i = 0; i < count; ++i) {
            compute(options.us);
            hops.front().push(makeItem());
        }
        hops.front().push(nullptr);
        for (auto& thread : threads) thread.join();
        return arrivals.wait();
    });
}

template <typename Queue>
void fanOut(const Options& options) {
    perItem(options, [&](int64_t count) {
        std::deque<Arrivals> arrivals;
        std::deque<Queue> hops(static_cast<size_t>(options.n));
        std::vector<std::thread> threads;
        for (auto& hop : hops) {
            Arrivals& branch = arrivals.emplace_back(count);
            threads.emplace_back([&] {
                while (hop.pop() != nullptr) branch.one();
            });
        }
        for (int64_t i = 0; i <= count; ++i) {
            const Item item = i < count ? makeItem() : nullptr;
            for (auto& hop : hops) hop.push(item);
        }
        for (auto& thread : threads) thread.join();
        return slowest(arrivals);
    });
}

template <typename Queue>
void roundTrip(const Options& options) {
    RoundTrips trips(options);
    Queue there, back;
    std::thread other([&] {
        while (Item item = there.pop()) back.push(std::move(item));
    });
    Item item = makeItem();
    do {
        trips.sent();
        there.push(std::move(item));
        item = back.pop();
    } while (trips.received());
    there.push(nullptr);
    other.join();
    trips.report();
}

void post(const Options& options) {
    Arrivals* arrivals = nullptr;
    Plain queue(SIZE_MAX);
    std::thread consumer([&] {
        while (queue.pop() != nullptr) arrivals->one();
    });
    perPost(options, &arrivals, [&] { queue.push(makeItem()); });
    queue.push(nullptr);
    consumer.join();
}

void pool(const Options& options) {
    floors::FreeList<std::array<char, 4096>> pool(kInFlight);
    perFetch(options, [&] { return pool.fetch(); });
}

// Created, ended at once, and joined.
void threads(const Options& options) {
    perCall(options, [&] { onThreads(options, 0, [] {}); });
}

}  // namespace

int main(int argc, char** argv) {
    return peer::run(argc, argv,
                     {{"chain", chain<Ring>},
                      {"chain_plain", chain<Plain>},
                      {"fanout", fanOut<Ring>},
                      {"fanout_plain", fanOut<Plain>},
                      {"roundtrip", roundTrip<Ring>},
                      {"roundtrip_plain", roundTrip<Plain>},
                      {"post", post},
                      {"pool", pool},
                      {"threads", threads}});
}
