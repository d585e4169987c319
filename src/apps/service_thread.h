// A thread of the shared-applications service.
#pragma once

#include <pthread.h>

#include <functional>

namespace qel {

// Runs a function on a thread of its own, once per Start(). An exception that the function lets out is logged and ends
// the thread. Start() and Join() are called from one thread at a time. The destructor joins: the function must have
// been told to end before.
class ServiceThread {
 public:
  ServiceThread() = default;
  ~ServiceThread() { Join(); }
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;

  // Creates the thread with default attributes and gives it `name` (at most 15 characters). Joins the one before.
  // Returns 0, or the error number of pthread_create().
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
