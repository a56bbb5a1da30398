// The HTTP(S) front of the emulator: cpp-httplib on 127.0.0.1, turning each request into an
// Exchange for Emulator::Impl::serve and applying transport faults (dropped connections,
// truncated bodies) to the answer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "emulator/emulator.h"

namespace wdc::emu {

// Owns the server and its listening thread. start/stop from one thread at a time.
class Listener {
 public:
  explicit Listener(Emulator::Impl& impl);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  [[nodiscard]] bool start(bool tls, uint16_t port, std::string* error);
  // Stops accepting, shuts every accepted connection down and joins the workers.
  void stop();
  [[nodiscard]] bool running() const;
  [[nodiscard]] uint16_t port() const;
  [[nodiscard]] std::string certificatePem() const;

 private:
  struct State;
  Emulator::Impl& impl_;
  std::unique_ptr<State> state_;
};

}  // namespace wdc::emu
