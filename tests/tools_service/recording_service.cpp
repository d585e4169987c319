#include "recording_service.h"

#include <sys/sem.h>

#include <algorithm>
#include <random>

#include "support/wait_until.h"

namespace qel::test {

SemaphoreKey::SemaphoreKey() {
  std::random_device source;
  value_ = std::uniform_int_distribution<key_t>(0x0100'0000, 0x7FFF'FFFF)(source);
}

SemaphoreKey::~SemaphoreKey() {
  semctl(semget(value_, 1, 0), 0, IPC_RMID);
}

int SemaphoreKey::Count() const {
  return semctl(semget(value_, 1, 0), 0, GETVAL);
}

void SemaphoreKey::Set(int count) const {
  semctl(semget(value_, 1, IPC_CREAT | 0666), 0, SETVAL, count);
}

void Journal::Add(const std::string& entry) {
  const std::lock_guard lock(mutex_);
  entries_.push_back(entry);
}

std::vector<std::string> Journal::Entries() const {
  const std::lock_guard lock(mutex_);
  return entries_;
}

int Journal::Count(const std::string& entry) const {
  return static_cast<int>(std::ranges::count(Entries(), entry));
}

bool Journal::WaitFor(const std::string& entry, int count) const {
  return WaitUntil([&] { return Count(entry) >= count; });
}

RecordingService::RecordingService(const char* name, Journal& journal) {
  const auto note = [&journal, prefix = std::string(name)](const char* call) { journal.Add(prefix + call); };
  descriptor.name = name;
  descriptor.init = [this, note](ServiceContext& context) {
    note(".init");
    return on_init(context);
  };
  descriptor.poll = [this, note](ServiceContext& context) {
    note(".poll");
    on_poll(context);
  };
  descriptor.stop = [this, note](ServiceContext& context) {
    note(".stop");
    on_stop(context);
    return true;
  };
  descriptor.event = [note](ServiceContext&, void*) { note(".event"); };
}

}  // namespace qel::test
