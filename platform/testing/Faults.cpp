#include <vexa_testing/Faults.h>

#include <atomic>

namespace vexa_testing {
namespace {

struct Plan {
    std::atomic<int> callsLeft{0};  // 1: the next call fails; 0: none does
    std::atomic<int> error{0};
};
Plan sPlans[kCalls];

Plan& planOf(Call call) {
    return sPlans[static_cast<int>(call)];
}

}  // namespace

void failCall(Call call, int nth, int error) {
    planOf(call).error = error;
    planOf(call).callsLeft = nth;
}

void clearFaults() {
    for (Plan& plan : sPlans) plan.callsLeft = 0;
}

int injectedError(Call call) {
    Plan& plan = planOf(call);
    int left = plan.callsLeft;
    while (left > 0) {
        if (plan.callsLeft.compare_exchange_weak(left, left - 1)) {
            return left == 1 ? plan.error.load() : 0;
        }
    }
    return 0;
}

}  // namespace vexa_testing
