// Runs the official Python SDK against an emulator: a script under bench/ with the SDK's hosts
// and CA bundle pointed at the emulator, reporting its result on standard output.
#pragma once

#include <optional>
#include <string>

namespace wdc::bench {

// Runs `WDC_SOURCE_DIR/bench/<script> <arguments>` with DROPBOX_API_HOST and
// DROPBOX_API_CONTENT_HOST set to `hostAndPort` (the emulator's) and REQUESTS_CA_BUNDLE to
// `caFile` (its certificate). The first line it printed, or nullopt when it could not run or
// exited non-zero.
std::optional<std::string> runSdkScript(const std::string& hostAndPort, const std::string& caFile,
                                        const std::string& script, const std::string& arguments);

// bench/emulator/sdk_peer.py: `downloads` of the emulator's /bench files with `workers` threads.
// Seconds the SDK took, or -1 when the script failed.
double runPythonSdkPeer(const std::string& hostAndPort, const std::string& caFile, int downloads,
                        int workers, int files);

}  // namespace wdc::bench
