#include "lock_fixture.h"

namespace wdc::testing_support {

void LockAndDeleteTest::SetUp() {
  previousDirectory_ = std::filesystem::current_path();
  std::filesystem::current_path(env_.temporaryDirectory());
  setUpClients(accessTokenOnly());
}

void LockAndDeleteTest::TearDown() { std::filesystem::current_path(previousDirectory_); }

void LockAndDeleteTest::restartEmulatorWith(emu::EmulatorOptions options) {
  emulator_->stop();
  options.tls = true;
  options.token = kAccessToken;
  options.appKey = WDC_DROPBOX_APP_KEY;
  options.appSecret = WDC_DROPBOX_APP_SECRET;
  emulator_ = std::make_unique<emu::Emulator>(std::move(options));
  std::string reason;
  ASSERT_TRUE(emulator_->start(&reason)) << reason;
  ASSERT_TRUE(emulator_->writeCertificate(certificatePath_, &reason)) << reason;
  setUpClients(accessTokenOnly());
}

void LockAndDeleteTest::put(const std::string& path, const std::string& body) {
  ASSERT_TRUE(emulator_->putFile(path, body)) << path;
}

}  // namespace wdc::testing_support
