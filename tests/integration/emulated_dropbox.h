// A test fixture with a real client talking to an in-process emulator over TLS: the failures a
// test needs come from the emulator's fault injection, not from mocks of our own code. Time is
// virtual (retry sleeps and cooldowns cost nothing and are recorded); the network is real.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "dbx/token_store.h"
#include "emulator/emulator.h"
#include "platform/logger.h"
#include "platform/virtual_env.h"
#include "webdavconnect/operation_queue.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc::testing_support {

inline constexpr const char* kAccessToken = "test-access-token";

class EmulatedDropbox : public ::testing::Test {
 protected:
  EmulatedDropbox();
  ~EmulatedDropbox() override;

  // Configures the clients manager for the emulator with `store` in its token file and, when the
  // store has an OAuth 2 token, links that account.
  void setUpClients(const dbx::DBTokenStoreContents& store);
  static dbx::DBTokenStoreContents accessTokenOnly();

  // A Dropbox connection whose answers arrive on its own serial queue.
  std::shared_ptr<WebDAVConnect> newConnection();

  // Injects `count` faults of `kind` on `route`.
  void failNext(const std::string& route, emu::FaultKind kind, uint64_t count,
                std::optional<uint32_t> argument = std::nullopt,
                emu::RetryAfterPlacement placement = emu::RetryAfterPlacement::kHeaderAndBody);

  // Sleeps recorded by the virtual Env, in seconds.
  std::vector<double> sleptSeconds() const;

  VirtualEnv env_;
  ScopedEnv useEnv_{env_};
  std::filesystem::path tokenStorePath_;
  std::filesystem::path certificatePath_;
  std::unique_ptr<emu::Emulator> emulator_;
  log::CaptureLog log_;
};

}  // namespace wdc::testing_support
