#include "mirell/base/thread_checker.h"

#include <cstdlib>

#include "mirell/base/logging.h"

namespace mirell {

void FailOwnerThreadCheck(const char* operation) {
  LOG_ERROR("{} called from a thread other than the one its object belongs to", operation);
  std::abort();
}

}  // namespace mirell
