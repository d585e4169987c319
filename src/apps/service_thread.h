// A thread of the shared-applications service.
#pragma once

#include <pthread.h>

#include <functional>

namespace qel {

// Runs a function on a new thread, once per Start(). An exception that leaves the function is logged and ends the
// thread. Start() and Join() are called from one thread at a time. The destructor joins the thread; before that, the
// owner must make the function return.
class ServiceThread {
 public:
  ServiceThread() = default;
  ~ServiceThread() { Join(); }
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;

  // Joins the previous thread and creates a new one with the name `name` (at most 15 characters, not copied). Returns
  // 0, or the error number of pthread_create().
  int Start(const char* name, std::function<void()> body);

  // Waits for the function to return; does nothing when no thread was started.
  void Join();

 private:
  static void* Run(void* self);

  const char* name_ = "";
  std::function<void()> body_;
  pthread_t thread_{};
  bool started_ = false;
};

}  // namespace qel
