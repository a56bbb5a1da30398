// Stored payloads: gzip over a keyed archive whose top-level key "data" holds the object.
#include <fmt/format.h>

#include "archive/bounded_inflate.h"
#include "webdavconnect/data_codecs.h"
#include "webdavconnect/payload.h"

namespace wdc {

std::optional<Bytes> encodeStoredPayload(const PlistValue& data) {
  PlistDictionary top;
  top.set("data", data);
  return gzipDeflate(archiveTopLevelObjects(top, /*mutableTopDictionaries=*/true));
}

std::optional<PlistDictionary> openStoredPayload(std::span<const uint8_t> bytes, ErrorOut error,
                                                 const KeyedArchiveLimits& limits) {
  Bytes inflated;
  switch (inflateBounded(bytes, kMaxInflatedPayloadBytes, inflated)) {
    case InflateOutcome::kInflated:
      return unarchiveTopLevelObjects(inflated, error, limits);
    case InflateOutcome::kNotCompressed:
      // Archives written without compression are read as they are.
      return unarchiveTopLevelObjects(bytes, error, limits);
    case InflateOutcome::kTooLarge:
      setError(error, Error::corruption("payload inflates past the size limit",
                                        fmt::format("{} bytes", kMaxInflatedPayloadBytes)));
      return std::nullopt;
  }
  return std::nullopt;
}

std::optional<PlistValue> decodeStoredPayload(std::span<const uint8_t> bytes, ErrorOut error,
                                              const KeyedArchiveLimits& limits) {
  auto top = openStoredPayload(bytes, error, limits);
  if (!top) return std::nullopt;
  PlistValue* data = top->find("data");
  if (data == nullptr || isNilReferenceMarker(*data)) return std::nullopt;
  return std::move(*data);
}

}  // namespace wdc
