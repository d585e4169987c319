#include "apps/service_thread.h"

#include <exception>
#include <utility>

#include "log/log.h"

namespace qel {

int ServiceThread::Start(const char* name, std::function<void()> body) {
  Join();
  name_ = name;
  body_ = std::move(body);
  const int error = pthread_create(&thread_, nullptr, Run, this);
  started_ = error == 0;
  return error;
}

void ServiceThread::Join() {
  if (std::exchange(started_, false)) {
    pthread_join(thread_, nullptr);
  }
}

void* ServiceThread::Run(void* self) {
  const auto* thread = static_cast<const ServiceThread*>(self);
  pthread_setname_np(pthread_self(), thread->name_);
  try {
    thread->body_();
  } catch (const std::exception& error) {
    LogError(kModuleAgent, "Error: Thread %s failed: %s", thread->name_, error.what());
  }
  return nullptr;
}

}  // namespace qel
