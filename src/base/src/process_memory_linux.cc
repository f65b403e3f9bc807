#include "mirell/base/process_memory.h"

#include <sys/prctl.h>

namespace mirell {

bool KeepToSmallPages() { return prctl(PR_SET_THP_DISABLE, 1UL, 0UL, 0UL, 0UL) == 0; }

}  // namespace mirell
