// Failure: how code that reads files, configs and streams reports what is wrong.
//
// Thrown by parsers and by the hooks of nodes, caught at their border: by the node base, which ends
// the run, and by the application. It never reaches libvxbase.
#pragma once

#include <vxkit/Verdict.h>

#include <optional>
#include <stdexcept>
#include <string>

namespace vxkit {

// A plain value. what() is one line for the user that names the thing and the place.
class Failure : public std::runtime_error {
public:
    // `verdict`: that of the run, if the thrower knows it; else the catcher decides.
    explicit Failure(const std::string& text, std::optional<Verdict> verdict = {})
        : std::runtime_error(text), mVerdict(verdict) {}

    const std::optional<Verdict>& verdict() const { return mVerdict; }

private:
    std::optional<Verdict> mVerdict;
};

}  // namespace vxkit
