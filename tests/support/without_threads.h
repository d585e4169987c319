// Makes the creation of threads fail.
#pragma once

#include <pthread.h>

#include <cstddef>

namespace qel::test {

// While an object exists, pthread_create() fails with EAGAIN, because the default stack size is too large.
class WithoutThreads {
 public:
  WithoutThreads() {
    pthread_getattr_default_np(&earlier_);
    pthread_attr_t huge = earlier_;
    pthread_attr_setstacksize(&huge, std::size_t{1} << 60);
    pthread_setattr_default_np(&huge);
  }
  ~WithoutThreads() { pthread_setattr_default_np(&earlier_); }
  WithoutThreads(const WithoutThreads&) = delete;
  WithoutThreads& operator=(const WithoutThreads&) = delete;

 private:
  pthread_attr_t earlier_{};
};

}  // namespace qel::test
