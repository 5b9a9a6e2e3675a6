#pragma once

#include <pthread.h>

#include "node.h"

namespace vorn::test {

/// Locks the node's mutex permanently, so that an operation that needs
/// it throws std::system_error instead of waiting.
inline void lockSoThatLockingThrows(launch::Node& node) {
  pthread_mutex_t* const mutex = node.mutex.native_handle();
  pthread_mutexattr_t attributes;
  (void)::pthread_mutexattr_init(&attributes);
  (void)::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  (void)::pthread_mutex_destroy(mutex);
  (void)::pthread_mutex_init(mutex, &attributes);
  (void)::pthread_mutexattr_destroy(&attributes);
  (void)::pthread_mutex_lock(mutex);
}

}  // namespace vorn::test
