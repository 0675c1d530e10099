// QuickTap's process-wide state: the combination table.
#pragma once

#include <vector>

#include "core/thread_annotations.h"
#include "quicktap/quicktap.h"

namespace vigild::quicktap::state {

// Leaf lock: nothing is called while holding it.
extern vigild::Mutex gTableMutex;
extern std::vector<QuickTapKeyValuePair> gTable GUARDED_BY(gTableMutex);

}  // namespace vigild::quicktap::state
