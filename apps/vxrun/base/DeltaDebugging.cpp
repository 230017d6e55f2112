#include "DeltaDebugging.h"

#include <algorithm>

namespace vxrun {

Items minimized(Items items, const FirstShown& firstShown) {
    size_t chunks = 2;
    size_t first = 0;  // the chunk that is left out first: those before it were tried last
    while (items.size() > 1) {
        chunks = std::min(chunks, items.size());
        const auto bound = [&](size_t chunk) {
            return items.begin() + static_cast<ptrdiff_t>(items.size() * chunk / chunks);
        };
        std::vector<Items> candidates;
        for (size_t i = 0; i < chunks; ++i) {
            const size_t chunk = (first + i) % chunks;
            Items& rest = candidates.emplace_back(items.begin(), bound(chunk));
            rest.insert(rest.end(), bound(chunk + 1), items.end());
        }
        const size_t shown = firstShown(candidates);
        if (shown < candidates.size()) {
            items = candidates[shown];
            first = (first + shown) % chunks;
            chunks = std::max<size_t>(chunks - 1, 2);
            first %= chunks;
        } else {
            if (chunks == items.size()) break;
            chunks *= 2;
            first = 0;
        }
    }
    return items;
}

}  // namespace vxrun
