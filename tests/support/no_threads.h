// A system that has no threads left.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>
#include <variant>

#include "host/posix/thread.h"
#include "kit/error.h"

namespace morvik::test {

/// While this object exists, no thread can be created: no stack can be as large as required.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t none = before_;
    EXPECT_EQ(pthread_attr_setstacksize(&none, size_t{1} << 48), 0);
    EXPECT_EQ(pthread_setattr_default_np(&none), 0);
    EXPECT_TRUE(std::holds_alternative<kit::Error>(host::startThread("morvik-test", [] {})));
  }
  ~NoThreads() { pthread_setattr_default_np(&before_); }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t before_{};
};

}  // namespace morvik::test
