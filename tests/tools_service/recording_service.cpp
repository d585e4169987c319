#include "recording_service.h"

#include <sys/sem.h>

#include <algorithm>
#include <random>

#include "support/wait_until.h"

namespace qel::test {
namespace {

key_t RandomKey() {
  std::random_device source;
  return std::uniform_int_distribution<key_t>(0x0100'0000, 0x7FFF'FFFF)(source);
}

}  // namespace

SemaphoreKey::SemaphoreKey() : value_(RandomKey()) {}

SemaphoreKey::~SemaphoreKey() {
  const int id = semget(value_, 1, 0);
  if (id >= 0) {
    semctl(id, 0, IPC_RMID);
  }
}

int SemaphoreKey::Count() const {
  const int id = semget(value_, 1, 0);
  return id < 0 ? -1 : semctl(id, 0, GETVAL);
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
  const std::string prefix = std::string(name) + ".";
  descriptor.name = name;
  descriptor.init = [this, &journal, prefix](ServiceContext& context) {
    journal.Add(prefix + "init");
    return on_init ? on_init(context) : true;
  };
  descriptor.poll = [this, &journal, prefix](ServiceContext& context) {
    journal.Add(prefix + "poll");
    if (on_poll) {
      on_poll(context);
    }
  };
  descriptor.stop = [this, &journal, prefix](ServiceContext&) {
    journal.Add(prefix + "stop");
    return stop_result;
  };
  descriptor.event = [&journal, prefix](ServiceContext&, void*) { journal.Add(prefix + "event"); };
}

}  // namespace qel::test
