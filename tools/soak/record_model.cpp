#include "tools/soak/record_model.h"

#include <fmt/format.h>

#include <random>

#include "webdavconnect/date.h"

namespace wdc::soak {

PlistDictionary payloadFor(const Record& record) {
  // Seeded by the record and its version, so each version has its own contents and length.
  std::seed_seq seed(record.uid.begin(), record.uid.end());
  std::mt19937 random(seed);
  random.discard(record.version * 3);
  const size_t noteLength = 20 + random() % 1800;
  std::string notes(noteLength, ' ');
  for (char& c : notes) c = static_cast<char>('a' + random() % 26);

  PlistDictionary payload;
  payload.set("UID", PlistValue(record.uid));
  payload.set("Owner", PlistValue(record.owner));
  payload.set("Version", PlistValue(static_cast<int64_t>(record.version)));
  payload.set("Title",
              PlistValue(fmt::format("{} {} v{}", record.folder, record.uid, record.version)));
  payload.set("Notes", PlistValue(std::move(notes)));
  payload.set("Done", PlistValue(record.version % 2 == 0));
  payload.set("Due", PlistValue(Date::fromUnixSeconds(1'790'000'000.0 +
                                                      static_cast<double>(record.version) * 60)));
  PlistValue::Array tags;
  for (uint64_t i = 0; i < 1 + record.version % 3; ++i) {
    tags.emplace_back(fmt::format("tag{}", (random() % 50)));
  }
  payload.set("Tags", PlistValue(std::move(tags)));
  return payload;
}

PlistDictionary tombstonePayloadFor(const Record& record) {
  PlistDictionary payload;
  payload.set("UID", PlistValue(record.uid));
  payload.set("Deleted", PlistValue(true));
  return payload;
}

std::string recordFileName(const Record& record, std::string_view opType) {
  return fmt::format("o_{}_k_{}_p_{}_i_{}_d_.{}", opType, record.container, record.parent,
                     record.uid, record.folder);
}

std::optional<RecordName> parseRecordName(std::string_view fileName) {
  const size_t dot = fileName.rfind('.');
  if (dot == std::string_view::npos) return std::nullopt;
  RecordName name;
  name.extension = std::string(fileName.substr(dot + 1));
  std::string_view stem = fileName.substr(0, dot);
  std::array<std::string_view, 10> parts{};
  size_t count = 0;
  while (count < parts.size()) {
    const size_t underscore = stem.find('_');
    parts[count++] = stem.substr(0, underscore);
    if (underscore == std::string_view::npos) break;
    stem.remove_prefix(underscore + 1);
  }
  if (count != 10 || parts[0] != "o" || parts[2] != "k" || parts[4] != "p" || parts[6] != "i" ||
      parts[8] != "d") {
    return std::nullopt;
  }
  name.opType = parts[1];
  name.container = parts[3];
  name.parent = parts[5];
  name.uid = parts[7];
  return name;
}

std::optional<uint64_t> verifiedVersion(Record record, const PlistDictionary& payload) {
  const PlistValue* version = payload.find("Version");
  if (version == nullptr || !version->isInteger() || version->asInt64() < 1) return std::nullopt;
  record.version = static_cast<uint64_t>(version->asInt64());
  if (!(payload == payloadFor(record))) return std::nullopt;
  return record.version;
}

}  // namespace wdc::soak
