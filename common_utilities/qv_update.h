// The rule by which an application refreshes the e-ink screen: partial updates are fast but
// leave ghosts behind, so every n-th update is a full one ("invertupdate" of global.cfg, 5 by
// default; 0 never asks for a full one by itself). A process starts at the point of a full
// refresh. One per process, for the UI thread.
#pragma once

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT QVUpdate {
public:
    static QVUpdate& Instance();

    // 0 full, 1 partial: what DoNextUpdate would do now without forcing.
    int GetNextUpdateType();
    // Refreshes the screen by the rule (`full` or `high_quality` force a full one) and counts
    // the update; the type done.
    int DoNextUpdate(bool full, bool high_quality);
    // Counts an update the application made itself.
    void IncreaseUpdate();
    void ResetUpdateCount();
    void SetFullupdateAfterCount(int count);
    int GetFullupdateAfterCount() const;
    void MakeNextUpdateFull();
    int IsImageOnScreenAnalyzer();

private:
    QVUpdate();
    void Step();

    int update_count_ = 0;
    int full_after_ = 0;
    bool never_partial_ = false;
    bool next_full_ = false;
};

}  // namespace utilities
}  // namespace quorvel
