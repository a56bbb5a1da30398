#include "support/sdk_peer.h"

#include <cstdio>
#include <cstdlib>

namespace wdc::bench {

double runPythonSdkPeer(const std::string& hostAndPort, const std::string& caFile, int downloads,
                        int workers, int files) {
  // The SDK reads its hosts and CA bundle from the environment at import time.
  const std::string command = "DROPBOX_API_HOST=" + hostAndPort +
                              " DROPBOX_API_CONTENT_HOST=" + hostAndPort +
                              " REQUESTS_CA_BUNDLE=" + caFile + " /usr/bin/python3 " +
                              WDC_SOURCE_DIR "/bench/emulator/sdk_peer.py " +
                              std::to_string(downloads) + " " + std::to_string(workers) + " " +
                              std::to_string(files);
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  char line[64] = {};
  const bool read = std::fgets(line, sizeof line, pipe) != nullptr;
  const int status = pclose(pipe);
  return read && status == 0 ? std::atof(line) : -1;
}

}  // namespace wdc::bench
