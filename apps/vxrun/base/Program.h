// Program: a program that runs beside this one, with all processes that it starts.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vxrun {

// Life     starts the program; ends it, and every process of its group, with itself, with the
//          program's own end, and with this process, whatever ends that.
// Threads  one at a time.
// Owns     the processes, the pipes and the folder.
class Program {
public:
    struct Setup {
        std::vector<std::string> command;      // the program, searched for in PATH, and arguments
        std::vector<std::string> environment;  // NAME=VALUE, in addition to this process's
        std::string input;                     // a file for standard input; empty: nothing
    };

    // Whether there is a program of that name, a path or one that is searched for in PATH.
    static bool exists(const std::string& name);

    // Throws Failure when the program cannot be started. There is no shell in between.
    explicit Program(const Setup& setup);
    ~Program() { finish(); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Its standard output and error: the ends of pipes, not blocking.
    int output() const { return mOutput; }
    int errors() const { return mErrors; }
    // Ready for reading when the program has ended.
    int end() const { return mStatus; }
    // How it ended, as waitpid(2) has it; empty when it has not.
    std::optional<int> status();

private:
    void finish();

    int mOutput = -1, mErrors = -1;
    int mLife = -1;    // the guard ends the program when this is closed
    int mStatus = -1;  // the guard writes the status
    int mGuard = -1;   // its process
    std::optional<int> mEnded;
};

// "exit code 3" or "SIGSEGV" of a status, for an error line; empty for exit code 0.
std::string endText(int status);

}  // namespace vxrun
