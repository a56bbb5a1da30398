// The check that ends every round of the soak: the store and every device against the ledger,
// record by record.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/soak/device.h"
#include "tools/soak/ledger.h"
#include "tools/soak/soak_run.h"

namespace wdc::emu {
class Emulator;
}

namespace wdc::soak {

// Adds to `report`, comparing the store and then each device with the ledger: records checked;
// records lost (a record's last version, or a deletion, missing from the store or from a device,
// or an older version there); duplicated (a record on the store or a device that should not be
// there: deleted, never created, stray, stored twice); corrupted (a stored payload that is no
// version of its record); lock files left on the store. Each problem is also described in the
// report's findings.
void checkRound(int round, const emu::Emulator& emulator, const Ledger& ledger,
                const std::vector<std::unique_ptr<Device>>& devices, SeedReport& report);

// Keeps `finding` in the report's findings (the first few dozen of a seed).
void noteFinding(SeedReport& report, std::string finding);

}  // namespace wdc::soak
