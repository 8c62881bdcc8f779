#include "common_utilities/qv_update.h"

#include "common_utilities/config.h"

namespace quorvel {
namespace utilities {

namespace {

constexpr const char* kGlobalConfig = "/mnt/ext1/system/config/global.cfg";
constexpr int kDefaultFullAfter = 5;
constexpr int kFull = 0;
constexpr int kPartial = 1;

}  // namespace

QVUpdate& QVUpdate::Instance() {
    static QVUpdate instance;
    return instance;
}

QVUpdate::QVUpdate() {
    int n = system::config::Config::GetInstance().ReadInt(kGlobalConfig, "invertupdate",
                                                          kDefaultFullAfter);
    full_after_ = n;
    update_count_ = n == 0 ? 0 : n - 1;
    never_partial_ = n == 0;
}

int QVUpdate::GetNextUpdateType() {
    if (next_full_) return kFull;
    if (update_count_ < full_after_ - 1) return kPartial;
    return never_partial_ ? kPartial : kFull;
}

void QVUpdate::Step() {
    ++update_count_;
    if (update_count_ >= full_after_) update_count_ = 0;
}

int QVUpdate::DoNextUpdate(bool full, bool high_quality) {
    int type = GetNextUpdateType();
    Step();
    if (full || high_quality) type = kFull;
    if (type == kPartial) {
        int panel = PanelHeight();
        if (panel != 0) {
            int upper = (ScreenHeight() - panel) / 4 * 4;
            PartialUpdateHQ(0, 0, ScreenWidth(), upper);
            PartialUpdate(0, upper, ScreenWidth(), ScreenHeight() - upper);
        } else {
            PartialUpdateHQ(0, 0, ScreenWidth(), ScreenHeight());
        }
        return type;
    }
    if (high_quality) {
        FullUpdateHQ();
    } else {
        FullUpdate();
    }
    next_full_ = false;
    update_count_ = 0;
    return type;
}

void QVUpdate::IncreaseUpdate() {
    Step();
}

void QVUpdate::ResetUpdateCount() {
    update_count_ = 0;
}

void QVUpdate::SetFullupdateAfterCount(int count) {
    full_after_ = count;
    if (update_count_ >= count) update_count_ = 0;
}

int QVUpdate::GetFullupdateAfterCount() const {
    return full_after_;
}

void QVUpdate::MakeNextUpdateFull() {
    next_full_ = true;
}

int QVUpdate::IsImageOnScreenAnalyzer() {
    return 0;
}

}  // namespace utilities
}  // namespace quorvel
