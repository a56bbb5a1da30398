// `wdc payload decode FILE` prints the object stored under "data" of a stored payload as JSON;
// `wdc payload encode JSON_FILE OUT_FILE` writes a stored payload (gzip of a keyed archive) from
// that JSON form. Bad input exits 1 with a one-line reason on standard error.
#include <CLI/CLI.hpp>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "tools/wdc/commands.h"
#include "webdavconnect/payload.h"

namespace wdc::cli {
namespace {

[[noreturn]] void failWith(const std::string& reason) {
  std::cerr << "wdc payload: " << reason << "\n";
  std::exit(1);
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) failWith("cannot read " + path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void decode(const std::string& path) {
  const std::string text = readAll(path);
  const Bytes bytes(text.begin(), text.end());
  std::optional<Error> error;
  auto data = decodeStoredPayload(bytes, &error);
  if (error) failWith(path + ": not a stored payload: " + error->localizedDescription());
  if (!data) failWith(path + ": the archive holds nothing under \"data\"");
  std::cout << payloadValueToJSON(*data) << "\n";
}

void encode(const std::string& jsonPath, const std::string& outPath) {
  std::optional<Error> error;
  auto value = payloadValueFromJSON(readAll(jsonPath), &error);
  if (!value) failWith(jsonPath + ": " + error->localizedDescription());
  auto stored = encodeStoredPayload(*value);
  if (!stored) failWith("compression failed");
  std::ofstream out(outPath, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(stored->data()),
            static_cast<std::streamsize>(stored->size()));
  if (!out.flush()) failWith("cannot write " + outPath);
}

}  // namespace

void registerPayloadCommand(CLI::App& app) {
  auto* payload = app.add_subcommand("payload", "Decode and encode stored payloads");
  payload->require_subcommand(1);

  auto* decodeCmd = payload->add_subcommand("decode", "Print a stored payload's data as JSON");
  // Option values outlive parsing: the callbacks run after it.
  static std::string file, jsonFile, outFile;
  decodeCmd->add_option("FILE", file, "Stored payload (gzip of a keyed archive)")->required();
  decodeCmd->callback([] { decode(file); });

  auto* encodeCmd = payload->add_subcommand("encode", "Write a stored payload from JSON");
  encodeCmd->add_option("JSON_FILE", jsonFile, "JSON in the payload form")->required();
  encodeCmd->add_option("OUT_FILE", outFile, "Where to write the stored payload")->required();
  encodeCmd->callback([] { encode(jsonFile, outFile); });
}

}  // namespace wdc::cli
