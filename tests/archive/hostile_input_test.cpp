// Hostile payload bytes: each must give an error value (or the documented empty result) and never
// a crash, a hang, a stack overflow or an allocation sized by a count read from the file.
#include <gtest/gtest.h>

#include <functional>

#include "archive/archive_test_util.h"
#include "archive/bounded_inflate.h"
#include "archive/bplist_writer.h"
#include "support/test_util.h"
#include "webdavconnect/data_codecs.h"
#include "webdavconnect/keyed_archive.h"
#include "webdavconnect/payload.h"

namespace wdc {
namespace {

using bplist::Writer;
using Ref = Writer::Ref;

// Lays out a bplist from raw object bytes (1-byte offsets unless the file needs more); `patch`
// may then rewrite the trailer fields.
struct Trailer {
  uint8_t offsetSize, refSize;
  uint64_t numObjects, top, offsetTable;
};
Bytes assemble(const std::vector<Bytes>& objects, const std::function<void(Trailer&)>& patch = {}) {
  Bytes out = test::bytesOf("bplist00");
  std::vector<uint64_t> offsets;
  for (const auto& object : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), object.begin(), object.end());
  }
  Trailer t{1, 1, objects.size(), 0, out.size()};
  for (uint64_t offset : offsets) out.push_back(static_cast<uint8_t>(offset));
  if (patch) patch(t);
  out.insert(out.end(), 6, 0);
  out.push_back(t.offsetSize);
  out.push_back(t.refSize);
  for (uint64_t field : {t.numObjects, t.top, t.offsetTable}) {
    for (int i = 7; i >= 0; --i) out.push_back(static_cast<uint8_t>(field >> (8 * i)));
  }
  return out;
}

// A keyed archive whose $objects are made by `fill` (after "$null") and whose $top maps "data"
// to UID `dataUid`.
Bytes archiveOf(const std::function<void(Writer&, std::vector<Ref>&)>& fill, uint64_t dataUid = 1,
                const char* topKey = "data") {
  Writer w;
  std::vector<Ref> objects{w.addString("$null")};
  fill(w, objects);
  const Ref topKeys[] = {w.addString(topKey)};
  const Ref topValues[] = {w.addUid(dataUid)};
  const Ref keys[] = {w.addString("$version"), w.addString("$archiver"), w.addString("$top"),
                      w.addString("$objects")};
  const Ref values[] = {w.addInteger(100000), w.addString("NSKeyedArchiver"),
                        w.addDictionary(topKeys, topValues), w.addArray(objects)};
  return w.finish(w.addDictionary(keys, values));
}

// An object dictionary {$class: UID classUid, key: value...}.
Ref objectDict(Writer& w, uint64_t classUid, std::vector<std::pair<const char*, Ref>> fields) {
  std::vector<Ref> keys{w.addSharedString("$class")}, values{w.addUid(classUid)};
  for (auto& [key, value] : fields) {
    keys.push_back(w.addSharedString(key));
    values.push_back(value);
  }
  return w.addDictionary(keys, values);
}

Ref classDescription(Writer& w, const char* name) {
  const Ref chain[] = {w.addSharedString(name), w.addSharedString("NSObject")};
  const Ref keys[] = {w.addSharedString("$classname"), w.addSharedString("$classes")};
  const Ref values[] = {w.addSharedString(name), w.addArray(chain)};
  return w.addDictionary(keys, values);
}

// Decodes `archive` and returns the error text; fails the test when decoding succeeds.
std::string refusal(const Bytes& archive) {
  std::optional<Error> error;
  auto top = unarchiveTopLevelObjects(archive, &error);
  EXPECT_FALSE(top.has_value());
  if (!error) return "(no error)";
  EXPECT_EQ(error->domain(), kWebDAVConnectErrorDomain);
  return error->localizedDescription();
}

// An NSArray chain: object i holds `fanOut` references to object i + 1; the last is a string.
Bytes arrayChain(size_t levels, size_t fanOut) {
  return archiveOf([&](Writer& w, std::vector<Ref>& objects) {
    const uint64_t classUid = levels + 2;
    for (size_t i = 1; i <= levels; ++i) {
      std::vector<Ref> members(fanOut, w.addUid(i + 1));
      objects.push_back(objectDict(w, classUid, {{"NS.objects", w.addArray(members)}}));
    }
    objects.push_back(w.addString("leaf"));
    objects.push_back(classDescription(w, "NSArray"));
  });
}

TEST(HostileArchive, NestingOneHundredThousandDeepIsRefused) {
  EXPECT_NE(refusal(arrayChain(100000, 1)).find("too deep"), std::string::npos);
  // Just inside the limit: decodes, and the deep value survives the JSON form and re-archiving.
  std::optional<Error> error;
  auto deep = unarchiveTopLevelObjects(arrayChain(510, 1), &error);
  ASSERT_TRUE(deep.has_value()) << error->description();
  const PlistValue& value = *deep->find("data");
  EXPECT_EQ(payloadValueFromJSON(payloadValueToJSON(value, -1), &error), value);
  EXPECT_EQ(unarchiveTopLevelObjects(archiveTopLevelObjects(*deep), &error), deep);
}

TEST(HostileArchive, ReferencesThatFanOutExponentiallyAreStoppedByTheBudget) {
  // 2^60 paths described in a few kilobytes.
  EXPECT_NE(refusal(arrayChain(60, 2)).find("too large"), std::string::npos);
}

TEST(HostileArchive, SharedObjectWithManyKeysCannotBeScannedOverAndOver) {
  // An NSArray holding 10,000 references to one NSDate that carries 10,000 extra keys.
  Bytes archive = archiveOf([](Writer& w, std::vector<Ref>& objects) {
    std::vector<std::pair<const char*, Ref>> fields{{"NS.time", w.addReal(1.0)}};
    std::vector<std::string> names;
    for (int i = 0; i < 10000; ++i) names.push_back("junk" + std::to_string(i));
    for (const auto& name : names) fields.emplace_back(name.c_str(), w.addBool(true));
    const std::vector<Ref> members(10000, w.addUid(2));
    objects.push_back(objectDict(w, 3, {{"NS.objects", w.addArray(members)}}));
    objects.push_back(objectDict(w, 4, fields));
    objects.push_back(classDescription(w, "NSArray"));
    objects.push_back(classDescription(w, "NSDate"));
  });
  // Without charging the scans, 10,000 small dates fit this budget (and take 1e8 key reads).
  KeyedArchiveLimits limits;
  limits.maxDecodedBytes = 4 << 20;
  std::optional<Error> error;
  EXPECT_FALSE(unarchiveTopLevelObjects(archive, &error, limits).has_value());
  ASSERT_TRUE(error.has_value());
  EXPECT_NE(error->localizedDescription().find("too large"), std::string::npos);
}

TEST(HostileArchive, BadReferencesAndShapesAreRefused) {
  struct Case {
    const char* name;
    Bytes archive;
    const char* says;
  } cases[] = {
      {"uid past $objects", archiveOf([](Writer& w, auto& o) { o.push_back(w.addString("x")); }, 99),
       "out of range"},
      {"$class is a string",
       archiveOf([](Writer& w, auto& o) {
         o.push_back(objectDict(w, 2, {}));
         o.push_back(w.addString("NSArray"));
       }),
       "class description"},
      {"keys and objects differ",
       archiveOf([](Writer& w, auto& o) {
         const Ref one[] = {w.addUid(2)};
         o.push_back(objectDict(w, 3, {{"NS.keys", w.addArray(one)}, {"NS.objects", w.addArray({})}}));
         o.push_back(w.addString("k"));
         o.push_back(classDescription(w, "NSDictionary"));
       }),
       "differ in length"},
      {"NS.time is text",
       archiveOf([](Writer& w, auto& o) {
         o.push_back(objectDict(w, 2, {{"NS.time", w.addString("noon")}}));
         o.push_back(classDescription(w, "NSDate"));
       }),
       "NS.time"},
      {"nil in a collection",
       archiveOf([](Writer& w, auto& o) {
         const Ref nil[] = {w.addUid(0)};
         o.push_back(objectDict(w, 2, {{"NS.objects", w.addArray(nil)}}));
         o.push_back(classDescription(w, "NSArray"));
       }),
       "nil inside"},
      {"bare array in $objects",
       archiveOf([](Writer& w, auto& o) { o.push_back(w.addArray({})); }), "bare"},
  };
  for (const auto& c : cases) {
    EXPECT_NE(refusal(c.archive).find(c.says), std::string::npos) << c.name;
  }
}

TEST(HostileArchive, CycleThroughACollectionBecomesAMarker) {
  // An NSArray whose only member is itself.
  Bytes archive = archiveOf([](Writer& w, auto& o) {
    const Ref self[] = {w.addUid(1)};
    o.push_back(objectDict(w, 2, {{"NS.objects", w.addArray(self)}}));
    o.push_back(classDescription(w, "NSArray"));
  });
  std::optional<Error> error;
  auto top = unarchiveTopLevelObjects(archive, &error);
  ASSERT_TRUE(top.has_value()) << error->description();
  const auto& members = top->find("data")->asArray();
  ASSERT_EQ(members.size(), 1u);
  EXPECT_EQ(markerUid(members[0], "$cycle"), 1u);
}

TEST(HostileArchive, TopWithoutDataIsEmptyNotAnError) {
  Bytes archive = archiveOf([](Writer& w, auto& o) { o.push_back(w.addString("x")); }, 1, "root");
  std::optional<Error> error;
  EXPECT_FALSE(decodeStoredPayload(*gzipDeflate(archive), &error).has_value());
  EXPECT_FALSE(error.has_value());
  EXPECT_TRUE(openStoredPayload(archive, &error).has_value());
}

TEST(HostileBplist, LayoutDefectsAreRefused) {
  const Bytes ok = assemble({{0x51, 'a'}});
  std::optional<Error> error;
  ASSERT_TRUE(readBinaryPropertyList(ok, &error).has_value());

  struct Case {
    const char* name;
    Bytes bytes;
  } cases[] = {
      {"data claiming 2^60 bytes", assemble({{0x4f, 0x13, 0x10, 0, 0, 0, 0, 0, 0, 0}})},
      {"array claiming 2^62 refs", assemble({{0xaf, 0x13, 0x40, 0, 0, 0, 0, 0, 0, 0}})},
      {"object count in the billions",
       assemble({{0x51, 'a'}}, [](Trailer& t) { t.numObjects = 1ull << 40; })},
      {"offset table past the end", assemble({{0x51, 'a'}}, [](Trailer& t) { t.offsetTable = 200; })},
      {"top object out of range", assemble({{0x51, 'a'}}, [](Trailer& t) { t.top = 1; })},
      {"reference width 9", assemble({{0x51, 'a'}}, [](Trailer& t) { t.refSize = 9; })},
      {"offset into the offset table", assemble({{0x51, 'a'}}, [](Trailer& t) { t.offsetTable = 9; })},
      {"reference out of range", assemble({{0xa1, 0x05}})},
      {"array containing itself", assemble({{0xa1, 0x00}})},
      {"two arrays containing each other", assemble({{0xa1, 0x01}, {0xa1, 0x00}})},
      {"integer of 32 bytes", assemble({{0x15, 0}})},
      {"UID above 2^32", assemble({{0x84, 1, 0, 0, 0, 0}})},
      {"lone surrogate", assemble({{0x61, 0xd8, 0x00}})},
      {"dictionary keyed by an array", assemble({{0xd1, 0x01, 0x02}, {0xa0}, {0x09}})},
      {"not a bplist", test::bytesOf(std::string(64, 'x'))},
      {"fill marker", assemble({{0x0f}})},
      {"empty", {}},
  };
  for (const auto& c : cases) {
    std::optional<Error> caseError;
    EXPECT_FALSE(readBinaryPropertyList(c.bytes, &caseError).has_value()) << c.name;
    EXPECT_TRUE(caseError.has_value()) << c.name;
  }
}

TEST(HostileBplist, SharingWithoutACycleIsFine) {
  // [x, x] where x is one array: shared, not recursive.
  std::optional<Error> error;
  auto value = readBinaryPropertyList(assemble({{0xa2, 0x01, 0x01}, {0xa0}}), &error);
  ASSERT_TRUE(value.has_value()) << error->description();
  EXPECT_EQ(value->asArray().size(), 2u);
}

TEST(BinaryPlist, ReadsFormsNoFixtureHas) {
  std::optional<Error> error;
  // A single-precision real (what Apple writes for a float NSNumber): 1.5f is 3FC00000.
  EXPECT_EQ(readBinaryPropertyList(assemble({{0x22, 0x3f, 0xc0, 0x00, 0x00}}), &error),
            PlistValue(1.5));
  // A 16-byte integer holding -2 (sign-extended) is an ordinary negative integer.
  Bytes minusTwo{0x14};
  minusTwo.insert(minusTwo.end(), 16, 0xff);
  minusTwo.back() = 0xfe;
  EXPECT_EQ(readBinaryPropertyList(assemble({minusTwo}), &error), PlistValue(-2));
  // A surrogate pair decodes to one character outside the Basic Multilingual Plane.
  EXPECT_EQ(readBinaryPropertyList(assemble({{0x62, 0xd8, 0x3d, 0xde, 0x00}}), &error),
            PlistValue("\U0001F600"));
  // Any eighth header byte is accepted, as Apple's reader does.
  Bytes header = assemble({{0x09}});
  header[7] = '1';
  EXPECT_EQ(readBinaryPropertyList(header, &error), PlistValue(true));
  EXPECT_FALSE(error.has_value());
}

Bytes smallFixture() {
  return test::readFileBytes(test::fixturesDir() / "apple-dict-mutablearray.bplist");
}

TEST(HostileArchive, EveryTruncationIsRefused) {
  const Bytes archive = smallFixture();
  const Bytes gz = *gzipDeflate(archive);
  for (const Bytes* whole : {&archive, &gz}) {
    for (size_t length = 0; length < whole->size(); ++length) {
      std::optional<Error> error;
      const std::span<const uint8_t> prefix(whole->data(), length);
      EXPECT_FALSE(openStoredPayload(prefix, &error).has_value()) << length;
      EXPECT_TRUE(error.has_value()) << length;
    }
  }
}

TEST(HostileArchive, EveryCorruptByteGivesAValueOrAnError) {
  const Bytes archive = smallFixture();
  for (size_t i = 0; i < archive.size(); ++i) {
    for (uint8_t mask : {0x01, 0x80, 0xff}) {
      Bytes corrupt = archive;
      corrupt[i] ^= mask;
      std::optional<Error> error;
      const bool decoded = unarchiveTopLevelObjects(corrupt, &error).has_value();
      EXPECT_NE(decoded, error.has_value()) << "byte " << i;
    }
  }
}

TEST(BoundedInflate, StopsAtTheCapAndTellsCorruptFromLarge) {
  const Bytes zeros(1 << 20, 0);
  const Bytes gz = *gzipDeflate(zeros);
  Bytes out;
  EXPECT_EQ(inflateBounded(gz, zeros.size(), out), InflateOutcome::kInflated);
  EXPECT_EQ(out, zeros);
  EXPECT_EQ(inflateBounded(gz, zeros.size() - 1, out), InflateOutcome::kTooLarge);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(inflateBounded(std::span(gz).first(gz.size() / 2), zeros.size(), out),
            InflateOutcome::kNotCompressed);
  EXPECT_EQ(inflateBounded(smallFixture(), 1 << 20, out), InflateOutcome::kNotCompressed);
  EXPECT_EQ(inflateBounded(*zlibDeflate(zeros), zeros.size(), out), InflateOutcome::kInflated);
}

TEST(StoredPayload, ReadsGzipAndPlainArchivesAlike) {
  const PlistValue payload(PlistDictionary{{"Title", "x"}, {"Count", 2}});
  const Bytes stored = *encodeStoredPayload(payload);
  ASSERT_GE(stored.size(), 2u);
  EXPECT_EQ(stored[0], 0x1f);
  EXPECT_EQ(stored[1], 0x8b);
  std::optional<Error> error;
  EXPECT_EQ(decodeStoredPayload(stored, &error), payload);
  EXPECT_EQ(decodeStoredPayload(*gzipInflate(stored), &error), payload);
  EXPECT_FALSE(error.has_value());
}

}  // namespace
}  // namespace wdc
