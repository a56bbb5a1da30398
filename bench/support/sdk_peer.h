// Runs the official Python SDK against an emulator: bench/emulator/sdk_peer.py downloads
// `downloads` of the emulator's /bench files with `workers` threads and prints its seconds.
#pragma once

#include <string>

namespace wdc::bench {

// Seconds the SDK took, or -1 when the script failed. `hostAndPort` is what the SDK's
// DROPBOX_API_HOST takes; `caFile` the emulator's certificate.
double runPythonSdkPeer(const std::string& hostAndPort, const std::string& caFile, int downloads,
                        int workers, int files);

}  // namespace wdc::bench
