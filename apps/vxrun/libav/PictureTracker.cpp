#include "PictureTracker.h"

#include "Text.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <optional>
#include <set>

namespace vxrun {
namespace {

std::string indexed(const std::string& element, size_t index) {
    return concat(element, "[", index, "]");
}

// VP9 (8.10) and AV1 (7.20): 8 slots hold the pictures that others may refer to. A picture that is
// shown later is shown from its slot.
class SlotTracker final : public PictureTracker {
public:
    void readUnit(size_t, const std::vector<TracedHeader>& headers) override {
        beginUnit();
        int64_t layer = -1;
        for (const TracedHeader& header : headers) {
            if (header.name == "OBU header") {
                const bool isExtended = header.value("obu_extension_flag") != 0;
                layer = isExtended ? header.value("temporal_id") : -1;
            }
            if (header.name == "Frame" || header.name == "Frame Header") readFrame(header, layer);
        }
    }

private:
    static constexpr size_t kSlots = 8;
    static constexpr int64_t kAll = (1 << kSlots) - 1;

    void readFrame(const TracedHeader& header, int64_t layer) {
        const bool isAv1 = header.name == "Frame Header";
        if (header.value("show_existing_frame") != 0) {
            const auto slot = static_cast<size_t>(header.value("frame_to_show_map_idx"));
            if (slot >= kSlots || !mSlots[slot]) return;
            const size_t shown = *mSlots[slot];
            show(shown);
            // AV1 7.21: a key frame that is shown so becomes the content of all slots.
            if (isAv1 && mKeys.count(shown) > 0) mSlots.fill(shown);
            return;
        }
        const int64_t type = header.value("frame_type", -1);
        if (type < 0) return;  // damaged, or a copy of a header
        constexpr int64_t kKey = 0, kAv1IntraOnly = 2;
        const bool isKey = type == kKey;
        const bool isIntra =
            isKey || (isAv1 ? type == kAv1IntraOnly : header.value("intra_only") != 0);
        const bool isShown = header.value("show_frame") != 0;
        CodedPicture& picture = add(isIntra ? 'I' : 'P');
        picture.temporalLayer = static_cast<int>(layer);
        picture.refersExactly = true;
        if (!isIntra) {
            std::set<size_t> refers;
            for (size_t i = 0; i + 1 < kSlots; ++i) {
                const auto slot = header.value(indexed("ref_frame_idx", i), -1);
                if (slot < 0) {  // VP9 has 3; those of AV1 may be derived, which is not done here
                    picture.refersExactly &= !isAv1;
                } else if (slot < static_cast<int64_t>(kSlots) && mSlots[slot]) {
                    refers.insert(*mSlots[slot]);
                }
            }
            picture.refers.assign(refers.begin(), refers.end());
        }
        const bool fillsAll = isKey && (isShown || !isAv1);
        const int64_t slots = fillsAll ? kAll : header.value("refresh_frame_flags");
        picture.isReference = slots != 0;
        for (size_t i = 0; i < kSlots; ++i) {
            if ((slots >> i & 1) != 0) mSlots[i] = last();
        }
        if (isKey) mKeys.insert(last());
        if (isShown) show(last());
    }

    std::array<std::optional<size_t>, kSlots> mSlots;
    std::set<size_t> mKeys;
};

// H.264 and HEVC: each access unit codes one picture (of H.264 maybe one field), which shows when
// its turn in output order comes.
class NalTracker : public PictureTracker {
protected:
    // 'I', 'P' or 'B' of a slice.
    virtual char typeOf(const TracedHeader& slice) const = 0;
    virtual void readParameters(const TracedHeader& header) = 0;
    // What another slice than the first one may refer to.
    virtual std::vector<size_t> mayReferTo() const { return {}; }
    // Fills in `picture`, of which `slice` is the first one.
    virtual void begin(const TracedHeader& slice, CodedPicture* picture) = 0;

    void readOutOfBand(const std::vector<TracedHeader>& headers) override {
        for (const TracedHeader& header : headers) readParameters(header);
    }

    void readUnit(size_t, const std::vector<TracedHeader>& headers) override {
        beginUnit();
        bool hasPicture = false;
        for (const TracedHeader& header : headers) {
            if (header.name.rfind("Slice", 0) != 0) {
                readParameters(header);
                continue;
            }
            const char type = typeOf(header);
            if (hasPicture) {  // one more slice, or the second field
                CodedPicture& picture = pictures().back();
                if (type == 'I' || picture.type == 'B' || type == picture.type) continue;
                picture.type = type;
                if (picture.refers.empty()) picture.refers = mayReferTo();
                continue;
            }
            hasPicture = true;
            CodedPicture& picture = add(type);
            begin(header, &picture);
            show(last());
        }
        if (!hasPicture) {  // nothing that could be read
            add(0);
            show(last());
        }
    }
};

class H264Tracker final : public NalTracker {
    char typeOf(const TracedHeader& slice) const override {
        constexpr char kTypes[] = "PBIPI";  // table 7-6; SP and SI as P and I
        return kTypes[slice.value("slice_type") % 5];
    }

    void readParameters(const TracedHeader& header) override {
        if (header.name != "Sequence Parameter Set") return;
        mMost[header.value("seq_parameter_set_id")] = header.value("max_num_ref_frames");
        mLargest = 1;
        for (const auto& [id, most] : mMost) mLargest = std::max(mLargest, most);
    }

    std::vector<size_t> mayReferTo() const override { return mBefore; }

    // The sliding window of 8.2.5.3. Marking commands are not followed: they may remove pictures
    // from it, or keep a long-term one.
    void begin(const TracedHeader& slice, CodedPicture* picture) override {
        constexpr int64_t kIdr = 5;
        if (slice.value("nal_unit_type") == kIdr) mWindow.clear();
        mBefore.assign(mWindow.begin(), mWindow.end());
        if (picture->type != 'I') picture->refers = mBefore;
        picture->isReference = slice.value("nal_ref_idc") != 0;
        if (!picture->isReference) return;
        mWindow.push_back(last());
        const bool isField = slice.value("field_pic_flag") != 0;
        const auto most = static_cast<size_t>(isField ? 2 * mLargest : mLargest);
        while (mWindow.size() > most) mWindow.pop_front();
    }

    std::map<int64_t, int64_t> mMost;  // reference frames, of each parameter set
    int64_t mLargest = 1;
    std::deque<size_t> mWindow;
    std::vector<size_t> mBefore;  // the window of the last picture
};

// HEVC: the reference picture sets name all pictures that may be referred to, by their order counts
// (8.3.1 and 8.3.2).
class HevcTracker final : public NalTracker {
    // Order counts relative to the picture, those before it first.
    struct Set {
        struct Entry {
            int64_t delta;
            bool isUsed;
        };
        std::vector<Entry> entries;
    };
    struct Sequence {
        int64_t countBits = 4;
        std::vector<Set> sets;
        std::vector<Set::Entry> longTerm;  // their `delta` is the lower part of the count
    };
    using Elements = std::vector<std::pair<std::string, int64_t>>;

    char typeOf(const TracedHeader& slice) const override {
        constexpr char kTypes[] = "BPI";  // table 7-7
        const int64_t type = slice.value("slice_type", 2);
        return type < 3 ? kTypes[type] : '\0';
    }

    void readParameters(const TracedHeader& header) override {
        if (header.name == "Picture Parameter Set") {
            mSequenceOf[header.value("pps_pic_parameter_set_id")] =
                header.value("pps_seq_parameter_set_id");
        }
        if (header.name != "Sequence Parameter Set") return;
        Sequence& sequence = mSequences[header.value("sps_seq_parameter_set_id")];
        sequence = {};
        sequence.countBits = 4 + header.value("log2_max_pic_order_cnt_lsb_minus4");
        const Elements& all = header.elements;
        auto at = std::find_if(all.begin(), all.end(), [](const auto& element) {
            return element.first == "num_short_term_ref_pic_sets";
        });
        const int64_t count = at == all.end() ? 0 : (at++)->second;
        for (int64_t i = 0; i < count; ++i) {
            sequence.sets.push_back(readSet(&at, all.end(), sequence.sets, i == 0));
        }
        for (int64_t i = 0; i < header.value("num_long_term_ref_pics_sps"); ++i) {
            const auto n = static_cast<size_t>(i);
            sequence.longTerm.push_back(
                {header.value(indexed("lt_ref_pic_poc_lsb_sps", n)),
                 header.value(indexed("used_by_curr_pic_lt_sps_flag", n)) != 0});
        }
    }

    // The set at `at`, of 7.3.7; leaves `at` behind it. `isFirst`: it cannot be predicted.
    static Set readSet(Elements::const_iterator* at, Elements::const_iterator end,
                       const std::vector<Set>& sets, bool isFirst) {
        const auto next = [&](const char* element, int64_t otherwise = 0) {
            const std::string name = element;
            if (*at == end || (*at)->first.compare(0, name.size(), name) != 0) return otherwise;
            return ((*at)++)->second;
        };
        Set set;
        if (!isFirst && next("inter_ref_pic_set_prediction_flag") != 0) {
            const auto back = static_cast<size_t>(next("delta_idx_minus1")) + 1;
            const int64_t sign = next("delta_rps_sign");
            const int64_t delta = (1 - 2 * sign) * (next("abs_delta_rps_minus1") + 1);
            if (back > sets.size()) return set;
            std::vector<Set::Entry> from = sets[sets.size() - back].entries;
            from.push_back({0, false});  // the picture that the other set belongs to
            for (const Set::Entry& entry : from) {
                const bool isUsed = next("used_by_curr_pic_flag") != 0;
                const bool isKept = isUsed || next("use_delta_flag", 1) != 0;
                if (isKept && entry.delta + delta != 0) {
                    set.entries.push_back({entry.delta + delta, isUsed});
                }
            }
            // The order that a prediction from this set relies on: 7-61 and 7-62.
            std::sort(set.entries.begin(), set.entries.end(), [](const auto& a, const auto& b) {
                return (a.delta < 0) != (b.delta < 0) ? a.delta < 0
                                                      : std::abs(a.delta) < std::abs(b.delta);
            });
            return set;
        }
        const int64_t before = next("num_negative_pics"), after = next("num_positive_pics");
        for (const bool isBefore : {true, false}) {
            int64_t delta = 0;
            for (int64_t i = 0; i < (isBefore ? before : after) && *at != end; ++i) {
                const int64_t step =
                    next(isBefore ? "delta_poc_s0_minus1" : "delta_poc_s1_minus1") + 1;
                delta += isBefore ? -step : step;
                const bool isUsed =
                    next(isBefore ? "used_by_curr_pic_s0_flag" : "used_by_curr_pic_s1_flag") != 0;
                set.entries.push_back({delta, isUsed});
            }
        }
        return set;
    }

    void begin(const TracedHeader& slice, CodedPicture* picture) override {
        constexpr int64_t kFirstIrap = 16, kLastIrap = 23, kFirstIdr = 19, kLastIdr = 20;
        constexpr int64_t kLastSubLayer = 15;
        const int64_t unit = slice.value("nal_unit_type");
        const bool isIrap = unit >= kFirstIrap && unit <= kLastIrap;
        const bool isBla = unit >= kFirstIrap && unit < kFirstIdr;
        const bool isIdr = unit >= kFirstIdr && unit <= kLastIdr;
        picture->temporalLayer = static_cast<int>(slice.value("nuh_temporal_id_plus1", 1)) - 1;
        picture->isReference = unit > kLastSubLayer || unit % 2 == 1;
        const Sequence& sequence =
            mSequences[mSequenceOf[slice.value("slice_pic_parameter_set_id")]];
        const int64_t range = int64_t{1} << sequence.countBits;
        const int64_t lower = slice.value("slice_pic_order_cnt_lsb");
        const int64_t count = isIdr ? 0 : orderCount(lower, range, isBla || (isIrap && mIsFirst));
        mIsFirst = false;
        if (isIdr) mByCount.clear();
        if (!isIrap) refer(slice, sequence, count, range, picture);
        picture->refersExactly = true;
        // A leading picture, or one that none of its layer refers to, is no base for the next ones.
        const bool isLeading = unit >= 6 && unit <= 9;
        if (picture->temporalLayer == 0 && picture->isReference && !isLeading) mBase = count;
        mByCount[count] = last();
    }

    // 8.3.1, from the lower part in the header.
    int64_t orderCount(int64_t lower, int64_t range, bool startsAnew) const {
        if (startsAnew) return lower;
        const int64_t base = ((mBase % range) + range) % range;
        int64_t upper = mBase - base;
        if (lower < base && base - lower >= range / 2) upper += range;
        if (lower > base && lower - base > range / 2) upper -= range;
        return upper + lower;
    }

    void refer(const TracedHeader& slice, const Sequence& sequence, int64_t count, int64_t range,
               CodedPicture* picture) {
        std::set<size_t> kept, used;
        const auto note = [&](int64_t other, bool isUsed) {
            const auto found = mByCount.find(other);
            if (found == mByCount.end()) return;
            kept.insert(found->second);
            if (isUsed) used.insert(found->second);
        };
        for (const Set::Entry& entry : setOf(slice, sequence).entries) {
            note(count + entry.delta, entry.isUsed);
        }
        const int64_t fromSequence = slice.value("num_long_term_sps");
        const int64_t all = fromSequence + slice.value("num_long_term_pics");
        for (int64_t i = 0; i < all; ++i) {
            const auto n = static_cast<size_t>(i);
            Set::Entry entry = {slice.value(indexed("poc_lsb_lt", n)),
                                slice.value(indexed("used_by_curr_pic_lt_flag", n)) != 0};
            if (i < fromSequence) {
                const auto which = static_cast<size_t>(slice.value(indexed("lt_idx_sps", n)));
                if (which >= sequence.longTerm.size()) continue;
                entry = sequence.longTerm[which];
            }
            for (const auto& [other, number] : mByCount) {
                if (((other - entry.delta) % range) == 0) note(other, entry.isUsed);
            }
        }
        picture->refers.assign(used.begin(), used.end());
        for (auto i = mByCount.begin(); i != mByCount.end();) {
            i = kept.count(i->second) > 0 ? std::next(i) : mByCount.erase(i);
        }
    }

    static Set setOf(const TracedHeader& slice, const Sequence& sequence) {
        const Elements& all = slice.elements;
        const auto flag = std::find_if(all.begin(), all.end(), [](const auto& element) {
            return element.first == "short_term_ref_pic_set_sps_flag";
        });
        if (flag == all.end()) return {};
        if (flag->second == 0) {
            auto at = std::next(flag);
            return readSet(&at, all.end(), sequence.sets, sequence.sets.empty());
        }
        const auto which = static_cast<size_t>(slice.value("short_term_ref_pic_set_idx"));
        return which < sequence.sets.size() ? sequence.sets[which] : Set();
    }

    std::map<int64_t, int64_t> mSequenceOf;  // by picture parameter set
    std::map<int64_t, Sequence> mSequences;
    std::map<int64_t, size_t> mByCount;  // the pictures that are kept for reference
    int64_t mBase = 0;                   // order count that the next one is relative to
    bool mIsFirst = true;
};

}  // namespace

void PictureTracker::readUnit(size_t, const std::vector<TracedHeader>&) {
    beginUnit();
    add(0);
    show(last());
}

CodedPicture& PictureTracker::add(char type) {
    CodedPicture& picture = mPictures.emplace_back();
    picture.unit = mShown.size() - 1;
    picture.type = type;
    return picture;
}

std::unique_ptr<PictureTracker> PictureTracker::make(const std::string& codec) {
    if (codec == "vp9" || codec == "av1") return std::make_unique<SlotTracker>();
    if (codec == "h264") return std::make_unique<H264Tracker>();
    if (codec == "hevc") return std::make_unique<HevcTracker>();
    return std::make_unique<PictureTracker>();
}

}  // namespace vxrun
