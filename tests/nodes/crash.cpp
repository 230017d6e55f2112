// A node library whose decoder gives the shipped test a crash of each kind.
#include <vxkit/Decoder.h>
#include <vxkit/NodeType.h>

#include <csignal>
#include <cstdlib>
#include <thread>

namespace {

using namespace vxkit;

const ChoiceKey kHow{"how", {"signal", "abort", "thread"}, "in which way"};

class Crash : public Decoder {
public:
    using Decoder::Decoder;

private:
    void decode(const AccessUnit&) override {
        const auto fail = [] { std::raise(SIGSEGV); };
        if (config(kHow) == "abort") std::abort();
        if (config(kHow) == "thread") std::thread(fail).join();
        fail();
    }
    bool next() override { return false; }
};

const Registered<Crash> kType("test/crash", "crashes", 1, 1, {&kHow});

}  // namespace
