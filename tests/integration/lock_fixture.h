// Shared by the sync-lock, folder and delete integration tests: the emulated Dropbox with a
// linked account, the process's current directory moved to the Env's temporary directory (where
// the lock upload reads its file from), and a way to restart the emulator with other options.
#pragma once

#include <filesystem>
#include <string>

#include "emulated_dropbox.h"

namespace wdc::testing_support {

class LockAndDeleteTest : public EmulatedDropbox {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Replaces the emulator by one started with `options` (TLS, token and app credentials are
  // filled in) and links the account against it.
  void restartEmulatorWith(emu::EmulatorOptions options);

  // Puts a file with a fixed body, failing the test when the emulator refuses it.
  void put(const std::string& path, const std::string& body = "x");
  bool exists(const std::string& path) const { return emulator_->lookup(path).has_value(); }

  std::filesystem::path previousDirectory_;
};

}  // namespace wdc::testing_support
