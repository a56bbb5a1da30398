// `wdc lock OWNER` takes the sync lock, `wdc lock --status` shows who holds it and since when,
// `wdc unlock LOCKNAME` releases it.
#include <CLI/CLI.hpp>

#include <cmath>
#include <filesystem>
#include <iostream>

#include <fmt/format.h>

#include "platform/env.h"
#include "tools/wdc/cli_context.h"
#include "tools/wdc/output.h"
#include "tools/wdc/record_json.h"
#include "tools/wdc/store_commands.h"

namespace wdc::cli {
namespace {

struct LockOptions {
  std::string owner;
  bool status = false;
  std::string lockName;
};

std::string describeAge(double seconds) {
  const auto whole = static_cast<long long>(std::floor(seconds));
  if (whole < 60) return fmt::format("{} s", whole);
  if (whole < 3600) return fmt::format("{} min {} s", whole / 60, whole % 60);
  return fmt::format("{} h {} min", whole / 3600, (whole % 3600) / 60);
}

void showStatus(const GlobalOptions& options, WebDAVConnect& store) {
  std::optional<Error> error;
  auto lock = store.getCurrentLockFile(&error);
  if (!lock) {
    if (error) throw CommandFailure(failureText("cannot read the sync lock", error));
    if (options.json) {
      printJson({{"locked", false}});
    } else {
      std::cout << "not locked\n";
    }
    return;
  }
  std::optional<double> age;
  if (lock->ModificationDate) {
    const double now = Date::fromTimePoint(Env::current().now()).unixSeconds();
    age = std::max(0.0, now - lock->ModificationDate->unixSeconds());
  }
  if (options.json) {
    nlohmann::ordered_json json{{"locked", true},
                                {"owner", lock->UID.value_or("")},
                                {"lockName", lock->FilePath.value_or("")}};
    if (lock->ModificationDate) json["since"] = isoDate(*lock->ModificationDate);
    if (age) json["ageSeconds"] = *age;
    printJson(json);
    return;
  }
  std::cout << "owner:     " << lock->UID.value_or("") << "\n"
            << "lock name: " << lock->FilePath.value_or("") << "\n";
  if (lock->ModificationDate) {
    std::cout << "since:     " << isoDate(*lock->ModificationDate) << " (" << describeAge(*age)
              << " ago)\n";
  }
}

void takeLock(const GlobalOptions& options, WebDAVConnect& store, const std::string& owner) {
  if (owner.empty() || owner.find('/') != std::string::npos) {
    throw CommandFailure("OWNER must be a non-empty name without \"/\"", 2);
  }
  // The lock upload reads its file by bare name from the current directory, which a host keeps
  // at the temporary directory the lock file is written to.
  std::error_code ec;
  std::filesystem::current_path(Env::current().temporaryDirectory(), ec);
  if (ec) throw CommandFailure("cannot enter the temporary directory: " + ec.message());
  std::optional<Error> error;
  auto lock = store.lockDirectory(owner, &error);
  if (!lock) throw CommandFailure(failureText("cannot take the sync lock", error));
  if (options.json) {
    printJson({{"owner", lock->UID.value_or(owner)}, {"lockName", lock->FilePath.value_or("")}});
  } else {
    std::cout << lock->FilePath.value_or("") << "\n";
  }
}

}  // namespace

void registerLockCommands(CLI::App& app, GlobalOptions& options) {
  auto lock = std::make_shared<LockOptions>();
  auto* lockCommand = app.add_subcommand(
      "lock", "Take the sync lock for OWNER (prints the lock name), or show it with --status");
  lockCommand->add_option("OWNER", lock->owner, "Owner identifier (the device or user)");
  lockCommand->add_flag("--status", lock->status, "Show who holds the lock and since when");
  lockCommand->callback([&options, lock] {
    if (lock->status == !lock->owner.empty()) {
      throw CommandFailure("give either OWNER or --status", 2);
    }
    auto store = openStore(options);
    if (lock->status) {
      showStatus(options, *store);
    } else {
      takeLock(options, *store, lock->owner);
    }
  });

  auto* unlockCommand =
      app.add_subcommand("unlock", "Release the sync lock named LOCKNAME (from `wdc lock`)");
  unlockCommand->add_option("LOCKNAME", lock->lockName, "The lock name")->required();
  unlockCommand->callback([&options, lock] {
    auto store = openStore(options);
    std::optional<Error> error;
    if (!store->unlockDirectory(lock->lockName, &error)) {
      throw CommandFailure(error ? failureText("cannot release the sync lock", error)
                                 : "no lock named " + lock->lockName + " was there");
    }
    if (options.json) {
      printJson({{"unlocked", lock->lockName}});
    } else {
      std::cout << "unlocked " << lock->lockName << "\n";
    }
  });
}

}  // namespace wdc::cli
