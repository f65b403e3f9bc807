#include "mirell/base/thread_name.h"

#include <pthread.h>

#include <string>

namespace mirell {

void NameThisThread(std::string_view name) {
  constexpr std::size_t kLongest = 15;  // The kernel's limit, without the terminator.
  const std::string kept(name.substr(0, kLongest));
  pthread_setname_np(pthread_self(), kept.c_str());
}

}  // namespace mirell
