#include "Crash.h"

#include <csignal>

namespace vxrun {
namespace {

struct Fatal {
    int number;
    const char* name;
    struct sigaction old;
};
Fatal sFatal[] = {{SIGSEGV, "SIGSEGV", {}},
                  {SIGBUS, "SIGBUS", {}},
                  {SIGILL, "SIGILL", {}},
                  {SIGFPE, "SIGFPE", {}},
                  {SIGABRT, "SIGABRT", {}}};

// For the handler, which has no arguments of its own.
struct Current {
    const Evidence* evidence;
    CrashReport report;
    void* to;
} sCurrent;

// A line of limited length in memory of its own: in a handler nothing may be allocated.
struct Line {
    void add(const char* part) {
        for (; *part != '\0' && size < sizeof text - 1; ++part) {
            text[size++] = static_cast<unsigned char>(*part) < ' ' ? '?' : *part;
        }
    }
    char text[512] = "";
    size_t size = 0;
};

void onCrash(int number, siginfo_t* info, void*) {
    const Fatal* fatal = sFatal;
    while (fatal->number != number) ++fatal;
    // What comes now, from here on or when the instruction is tried again, ends the process.
    sigaction(number, &fatal->old, nullptr);
    Line line;
    line.add(fatal->name);
    const NodeRecord* const own = AtWork::onThisThread();
    const char* separator = " in node '";
    const auto addNode = [&](const NodeRecord& record) {
        line.add(separator);
        line.add(record.name.c_str());
        line.add("'");
        separator = ", '";
    };
    if (own != nullptr) {
        addNode(*own);
    } else {
        separator = " in no node's thread; at work: '";
        sCurrent.evidence->forEachAtWork(addNode);
    }
    sCurrent.report(line.text, sCurrent.to);
    if (info->si_code <= 0) raise(number);  // it was sent, as abort() does
}

}  // namespace

void reportCrashes(const Evidence& evidence, CrashReport report, void* to) {
    sCurrent = {&evidence, report, to};
    for (Fatal& fatal : sFatal) {
        struct sigaction action = {};
        action.sa_sigaction = onCrash;
        action.sa_flags = SA_SIGINFO;
        sigaction(fatal.number, &action, &fatal.old);
    }
}

}  // namespace vxrun
