// Delta debugging: which of many items are needed to show something.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace vxrun {

using Items = std::vector<size_t>;

// The first of `candidates` that still shows it; their number when none does, and to end the
// search. It need not try those behind it.
using FirstShown = std::function<size_t(const std::vector<Items>& candidates)>;

// A part of `items` that still shows it, which all of them do. It is minimal: without any one more
// it does not show it, unless the search was ended. (The ddmin of Zeller and Hildebrandt, by
// complements.)
Items minimized(Items items, const FirstShown& firstShown);

}  // namespace vxrun
