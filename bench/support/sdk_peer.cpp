#include "support/sdk_peer.h"

#include <cstdio>
#include <cstdlib>

namespace wdc::bench {

std::optional<std::string> runSdkScript(const std::string& hostAndPort, const std::string& caFile,
                                        const std::string& script, const std::string& arguments) {
  // The SDK reads its hosts and CA bundle from the environment at import time.
  const std::string command = "DROPBOX_API_HOST=" + hostAndPort +
                              " DROPBOX_API_CONTENT_HOST=" + hostAndPort +
                              " REQUESTS_CA_BUNDLE=" + caFile + " /usr/bin/python3 " +
                              WDC_SOURCE_DIR "/bench/" + script + " " + arguments;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return std::nullopt;
  char line[256] = {};
  const bool read = std::fgets(line, sizeof line, pipe) != nullptr;
  const int status = pclose(pipe);
  if (!read || status != 0) return std::nullopt;
  return std::string(line);
}

double runPythonSdkPeer(const std::string& hostAndPort, const std::string& caFile, int downloads,
                        int workers, int files) {
  const auto line = runSdkScript(
      hostAndPort, caFile, "emulator/sdk_peer.py",
      std::to_string(downloads) + " " + std::to_string(workers) + " " + std::to_string(files));
  return line ? std::atof(line->c_str()) : -1;
}

}  // namespace wdc::bench
