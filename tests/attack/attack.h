// What every attack on the running agent shares: a real session, an agent that serves it, and what must hold at the
// end.
#pragma once

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "session/process_memory.h"
#include "session/session_test.h"

namespace qel::test {

// A test attacks between Start() and its end. TearDown() then expects that the agent serves as before, holds no more
// than before, and stops in time. It prints one line with what it has measured.
//
// Environment: QEL_ATTACK_SEED (1 unless set) chooses what random attacks do; QEL_ATTACK_SCALE (1 unless set) is how
// much more they do than in the short form.
class AttackTest : public testing::Test {
 protected:
  AttackTest();

  // Starts an agent, waits until it serves, and takes its footprint. `wrapper` runs the agent, see `Agent`. Without a
  // display it gets that of the session.
  void Start(const EnvironmentChanges& environment = {}, const std::vector<std::string>& wrapper = {},
             const std::string& display = "");
  // The wrapper for an agent without the rights of the test; empty where that has none to give up.
  static std::vector<std::string> AsOrdinaryUser();
  void TearDown() override;

  // How often to do what the short form does `brief` times.
  static int Scaled(int brief);
  std::size_t Random(std::size_t below) { return random_() % below; }
  std::string RandomBytes(std::size_t size);

  // Opens a window and closes it again. The time from its being listed and shown to the host's knowing it. Fails the
  // test when the host does not hear of it, unless the agent has ended.
  std::chrono::milliseconds ServeBeacon();
  // Overwrites the list of managed windows with these and ids of nobody.
  void Claim(const std::vector<Window>& windows, std::size_t others = 0);
  // Makes the agent report all windows again, which repairs what lost messages have left behind.
  void Reset();
  bool AllCommandsFetched();
  bool Lives() { return !agent_->Wait(0ms); }

  // What an agent holds while nothing happens.
  struct Footprint {
    long dirty_kib = 0;  // private memory
    std::size_t descriptors = 0;
    std::size_t threads = 0;
  };
  Footprint Measure();

  std::mt19937 random_;
  Session session_;
  std::unique_ptr<Agent> agent_;
  Footprint before_;
};

}  // namespace qel::test
