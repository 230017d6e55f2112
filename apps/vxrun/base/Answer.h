// answerOf(): what a function returns that may crash, hang or start threads.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace vxrun {

// What `ask` returns in a copy of this process that ends with it, and is killed after `limit` or
// when SIGINT or SIGTERM, which are blocked, wait for this process. `status` is its end, as
// waitpid(2) has it. Throws Failure when there is no process.
std::string answerOf(const std::function<std::string()>& ask, std::chrono::seconds limit,
                     int* status);

}  // namespace vxrun
