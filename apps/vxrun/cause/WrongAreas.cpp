#include "WrongAreas.h"

#include "Text.h"

#include <algorithm>

namespace vxrun {
namespace {

size_t countOf(const WrongFrame& frame) {
    return static_cast<size_t>(std::count(frame.cells.begin(), frame.cells.end(), true));
}

std::string cellsText(const WrongFrame& frame) {
    const size_t count = countOf(frame);
    return concat("frame ", frame.number, " has ", count,
                  count == 1 ? " wrong cell of " : " wrong cells of ", frame.cells.size());
}

bool contains(const WrongFrame& whole, const WrongFrame& part) {
    for (size_t i = 0; i < part.cells.size(); ++i) {
        if (part.cells[i] && !whole.cells[i]) return false;
    }
    return true;
}

// From the cells of the frames, of which there is one at least.
std::optional<Hint> hintOfCells(const std::vector<WrongFrame>& frames, bool isDecodingOrder) {
    constexpr size_t kFew =
        8;  // the part of a picture that a local error begins with: one of so many
    const WrongFrame& first = frames.front();
    const size_t cells = first.cells.size(), begin = countOf(first);
    const char* const order = isDecodingOrder ? "in decoding order" : "in output order";
    if (cells < kFew) return {};  // too small a picture
    if (10 * begin >= 9 * cells) {
        return Hint{"a lost or wrong reference, or a parameter of the whole picture",
                    concat(cellsText(first), ", the first wrong frame ", order)};
    }
    if (frames.size() < 3) return {};
    const auto isSmaller = [](const WrongFrame& a, const WrongFrame& b) {
        return countOf(a) < countOf(b);
    };
    const WrongFrame& most = *std::max_element(frames.begin(), frames.end(), isSmaller);
    if (begin * kFew <= cells && countOf(most) >= 2 * begin && contains(most, first)) {
        return Hint{
            begin == 1 ? "an error in coding that grows from one cell by prediction"
                       : "an error in coding that grows from a few cells by prediction",
            concat(cellsText(first), ", the first wrong frame ", order, "; ", cellsText(most))};
    }
    const bool isSame = std::all_of(frames.begin(), frames.end(), [&](const WrongFrame& frame) {
        return frame.cells == first.cells;
    });
    if (isSame) {
        return Hint{"a fault at a fixed place, such as an edge or a filter after decoding",
                    concat("the same ", begin, " of ", cells, " cells are wrong in ", frames.size(),
                           " frames")};
    }
    return {};
}

}  // namespace

std::optional<Hint> hintOf(const WrongAreas& areas) {
    constexpr uint64_t kEnough = 3;  // frames after a single wrong one that could have shown it
    if (!areas.finding.empty())
        return Hint{"frames in the wrong order, lost or repeated", areas.finding};
    if (areas.shape == "shifted") {
        return Hint{"a wrong crop or origin",
                    "the samples of the first wrong frame are the expected ones at other places"};
    }
    const auto& frames = areas.frames;
    if (areas.kind != "samples" || frames.empty()) return {};
    const auto hasCells = [&](const WrongFrame& frame) {
        return !frame.cells.empty() && frame.cells.size() == frames.front().cells.size();
    };
    if (frames.size() == 1 && areas.checked > frames.front().number + kEnough) {
        return Hint{"an error in a picture that no other one refers to",
                    concat("of ", areas.checked, " frames only frame ", frames.front().number,
                           " is wrong")};
    }
    if (!std::all_of(frames.begin(), frames.end(), hasCells)) return {};
    return hintOfCells(frames, areas.isDecodingOrder);
}

}  // namespace vxrun
