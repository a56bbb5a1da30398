// The blocking uploads end to end (record and arbitrary object) against the emulator: stored names,
// the new metadata and its rev, what the store holds, the retry loop's texts, and the scratch
// files: where they go, links planted there, the gzip fall-back, and their removal.
#include <fcntl.h>
#include <unistd.h>

#include "dropbox/upload_scratch.h"
#include "support/test_util.h"
#include "write_fixture.h"

namespace wdc::testing_support {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::SizeIs;
using testing::StartsWith;

TEST(UploadName, IdentifiersAreLowerCasedAndAbsentTypeAndExtensionReadNull) {
  struct Case {
    std::optional<std::string> op, container, parent, uid, extension;
    std::string expected;
  };
  const Case cases[] = {
      {"3", "ABC", "Déf", "XYZ", "tod", "o_3_k_abc_p_déf_i_xyz_d_.tod"},
      {"a", std::nullopt, std::nullopt, std::nullopt, "cal", "o_a_k__p__i__d_.cal"},
      {std::nullopt, "K", "P", "I", "col", "o_(null)_k_k_p_p_i_i_d_.col"},
      {"ÉX", "ΣΑ", "", "id", std::nullopt, "o_ÉX_k_σα_p__i_id_d_.(null)"},
  };
  for (const Case& c : cases) {
    WebDAVFileMetaData meta;
    meta.OpType = c.op;
    meta.ContainerUID = c.container;
    meta.ParentUID = c.parent;
    meta.UID = c.uid;
    meta.Extension = c.extension;
    meta.DeviceUDID = "DEVICE";  // never part of an uploaded name
    EXPECT_EQ(dropbox::uploadFileName(meta), c.expected);
  }
}

TEST(UploadName, ScratchNamesNeverLeaveTheTemporaryDirectory) {
  VirtualEnv env;
  ScopedEnv use(env);
  EXPECT_EQ(dropbox::scratchPathFor("o_1_k_a/../../x_p_"),
            env.temporaryDirectory() / "o_1_k_a%2F..%2F..%2Fx_p_");
  EXPECT_EQ(dropbox::scratchPathFor("50%.tod"), env.temporaryDirectory() / "50%25.tod");
  const auto path = env.temporaryDirectory() / "a b/ü%.gz";
  EXPECT_EQ(dropbox::pathForFileUrl(dropbox::fileUrlForPath(path)), path);
}

class SingleUpload : public WriteFixture {
 protected:
  std::filesystem::path scratch(const std::string& name) { return env_.temporaryDirectory() / name; }
};

TEST_F(SingleUpload, RecordIsStoredUnderItsNameAndTheNewMetadataCarriesTheStoresRev) {
  auto connection = newConnection();
  auto object = record("Mixed");
  const auto sourceMeta = object->FileMetaData;
  const std::string path = storedPath("tod", *object);
  std::optional<Error> error;
  auto stored = connection->uploadFileWithObject(object, "tod", &error);
  ASSERT_TRUE(stored) << error->description();
  EXPECT_FALSE(error);

  EXPECT_EQ(path, "/tod/o_1_k_cmixed_p_pmixed_i_umixed_d_.tod");
  auto entry = emulator_->lookup(path);
  ASSERT_TRUE(entry);
  EXPECT_EQ(stored->FileRev, entry->rev);
  EXPECT_EQ(stored->FilePath, "o_1_k_cmixed_p_pmixed_i_umixed_d_.tod");
  EXPECT_EQ(stored->ParentFolder, "tod");
  EXPECT_EQ(stored->ContainerUID, "CMixed");  // identifiers kept as the host gave them
  EXPECT_EQ(stored->UID, "UMixed");
  EXPECT_EQ(stored->OpType, "1");
  EXPECT_FALSE(stored->Extension);  // the new metadata names the file; it does not copy the type
  EXPECT_EQ(stored->ModificationDate, Date::fromTimePoint(env_.now()));
  EXPECT_DOUBLE_EQ(stored->ModificationDateAbsolute, Date::fromTimePoint(env_.now()).unixSeconds());
  EXPECT_EQ(object->FileMetaData, stored);  // the host's object now points at the new metadata
  EXPECT_NE(sourceMeta, stored);
  EXPECT_EQ(readBack(path), PlistValue(*object->FileContents));

  // The scratch file went once the record was stored.
  EXPECT_FALSE(std::filesystem::exists(scratch(*stored->FilePath)));
  EXPECT_FALSE(std::filesystem::exists(scratch(*stored->FilePath + ".gz")));
  EXPECT_EQ(emulator_->requestCount("files/upload"), 1u);
  EXPECT_TRUE(log_.contains(log::Level::kDebug, "[DROPBOX] Uploading File: " + path));
  EXPECT_TRUE(log_.contains(log::Level::kDebug,
                            "[DROPBOX] Copying file to local directory first before upload: " +
                                scratch(*stored->FilePath).string()));
}

TEST_F(SingleUpload, ServerErrorsAreRetriedWithTheUploadTexts) {
  failNext("files/upload", emu::FaultKind::kInternalError, 2);
  auto connection = newConnection();
  auto object = record("r");
  const std::string path = storedPath("tod", *object);
  std::optional<Error> error;
  ASSERT_TRUE(connection->uploadFileWithObject(object, "tod", &error));
  EXPECT_EQ(emulator_->requestCount("files/upload"), 3u);
  EXPECT_THAT(sleptSeconds(), AllOf(SizeIs(2), Each(0.5)));
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[WEBDAV Upload SYNC] ERROR: Error Domain=Dropbox Code=500"))
                  .Times(2));
  EXPECT_THAT(log_.messages(log::Level::kDebug),
              Contains(StartsWith("[DROPBOX] ERROR, WILL RETRY uploadFile: ")).Times(2));
  EXPECT_TRUE(emulator_->lookup(path));
}

TEST_F(SingleUpload, RateLimitWaitsTheServersRetryAfter) {
  failNext("files/upload", emu::FaultKind::kTooManyWriteOperations, 1, 9);
  auto connection = newConnection();
  std::optional<Error> error;
  ASSERT_TRUE(connection->uploadFileWithObject(record("r"), "tod", &error));
  ASSERT_THAT(sleptSeconds(), SizeIs(1));
  EXPECT_DOUBLE_EQ(sleptSeconds()[0], 9.0);
  EXPECT_TRUE(log_.contains(log::Level::kWarning,
                            "[DROPBOX] Rate limited, will retry uploadFile in 9.0s [attempt 1]"));
}

TEST_F(SingleUpload, AConflictIsAFailureThatKeepsTheHostsMetadata) {
  auto object = record("r");
  ASSERT_TRUE(emulator_->createFolder(storedPath("tod", *object)));  // a folder sits there
  const auto sourceMeta = object->FileMetaData;
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->uploadFileWithObject(object, "tod", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "Dropbox");
  EXPECT_EQ(error->code(), 409);
  EXPECT_EQ(emulator_->requestCount("files/upload"), 1u);  // a conflict is not retried
  EXPECT_EQ(object->FileMetaData, sourceMeta);
}

TEST_F(SingleUpload, PlantedLinksAreReplacedNotFollowed) {
  auto object = record("r");
  const std::string name = dropbox::uploadFileName(*object->FileMetaData);
  const std::string path = storedPath("tod", *object);
  const auto payload = PlistValue(*object->FileContents);
  const auto victim = env_.temporaryDirectory() / "victim";
  const auto victimGz = env_.temporaryDirectory() / "victim.gz";
  test::writeFileBytes(victim, test::bytesOf("keep me"));
  test::writeFileBytes(victimGz, test::bytesOf("keep me too"));
  std::filesystem::create_symlink(victim, scratch(name));
  std::filesystem::create_symlink(victimGz, scratch(name + ".gz"));

  auto connection = newConnection();
  ASSERT_TRUE(connection->uploadFileWithObject(object, "tod"));
  EXPECT_EQ(test::textOf(test::readFileBytes(victim)), "keep me");
  EXPECT_EQ(test::textOf(test::readFileBytes(victimGz)), "keep me too");
  EXPECT_EQ(readBack(path), payload);
}

TEST_F(SingleUpload, WhenTheGzipFileCannotBeMadeTheDeflatedArchiveGoesUpUnderTheSameName) {
  auto object = record("r");
  const std::string name = dropbox::uploadFileName(*object->FileMetaData);
  const std::string path = storedPath("tod", *object);
  // A folder where the compressed file would go: the gzip tool cannot write it.
  std::filesystem::create_directory(scratch(name + ".gz"));
  auto connection = newConnection();
  ASSERT_TRUE(connection->uploadFileWithObject(object, "tod"));
  auto bytes = emulator_->readFile(path);
  ASSERT_TRUE(bytes);
  ASSERT_GE(bytes->size(), 2u);
  EXPECT_EQ(static_cast<uint8_t>((*bytes)[0]), 0x1f);  // gzip magic: compressed all the same
  EXPECT_EQ(static_cast<uint8_t>((*bytes)[1]), 0x8b);
  EXPECT_EQ(readBack(path), PlistValue(*object->FileContents));
  EXPECT_FALSE(std::filesystem::exists(scratch(name)));  // the uploaded file was removed
}

TEST_F(SingleUpload, AScratchFileThatCannotBeWrittenIsNeverSent) {
  auto object = record("r");
  const std::string name = dropbox::uploadFileName(*object->FileMetaData);
  // Folders where both files would go: nothing complete can be written, so nothing is sent.
  std::filesystem::create_directory(scratch(name));
  std::filesystem::create_directory(scratch(name + ".gz"));
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->uploadFileWithObject(object, "tod", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), dbx::kURLErrorFileDoesNotExist);
  EXPECT_EQ(emulator_->requestCount("files/upload"), 0u);
}

TEST_F(SingleUpload, ArbitraryObjectIsStoredByNameAndItsScratchFileRemoved) {
  auto connection = newConnection();
  PlistDictionary settings{{"theme", PlistValue("dark")}, {"count", PlistValue(3)}};
  std::optional<Error> error;
  ASSERT_TRUE(connection->uploadArbitraryFile("Settings.plist", PlistValue(settings), "/conf/",
                                              &error));
  EXPECT_FALSE(error);
  EXPECT_EQ(readBack("/conf/Settings.plist"), PlistValue(settings));
  EXPECT_FALSE(std::filesystem::exists(scratch("Settings.plist.gz")));
  EXPECT_TRUE(log_.contains(log::Level::kDebug,
                            "[DROPBOX] Uploading arbitrary File: /conf/Settings.plist "
                            "(Settings.plist)"));
  // Only record uploads log their scratch copy.
  EXPECT_THAT(log_.messages(log::Level::kDebug),
              testing::Not(Contains(StartsWith("[DROPBOX] Copying file"))));
}

TEST_F(SingleUpload, AnArbitraryObjectComesBackThroughTheHostsDownload) {
  auto connection = newConnection();
  const PlistValue devices(PlistValue::Array{PlistValue("iPhone"), PlistValue(Date{12.25})});
  std::optional<Error> error;
  ASSERT_TRUE(connection->uploadArbitraryFile("devices", devices, "meta", &error));
  EXPECT_EQ(connection->downloadArbitraryFile("devices", "meta", &error), devices);
  EXPECT_FALSE(error);
}

TEST_F(SingleUpload, ArbitraryUploadOfNothingFailsAtOnceWithoutAnError) {
  auto connection = newConnection();
  std::optional<Error> error;
  EXPECT_FALSE(connection->uploadArbitraryFile("x.plist", std::nullopt, "conf", &error));
  EXPECT_FALSE(error);
  EXPECT_EQ(emulator_->requestCount("*"), 0u);
}

TEST_F(SingleUpload, ArbitraryUploadRetriesWithItsOwnTexts) {
  failNext("files/upload", emu::FaultKind::kInternalError, 1);
  failNext("files/upload", emu::FaultKind::kTooManyRequests, 1, 3);
  auto connection = newConnection();
  EXPECT_FALSE(connection->uploadArbitraryFile("a.bin", PlistValue(Bytes{1, 2, 3}), "", nullptr));
  // Without an error out-parameter the loop cannot see the failure: one attempt, no retry.
  EXPECT_EQ(emulator_->requestCount("files/upload"), 1u);
  EXPECT_FALSE(emulator_->lookup("/a.bin"));

  std::optional<Error> error;
  ASSERT_TRUE(connection->uploadArbitraryFile("a.bin", PlistValue(Bytes{1, 2, 3}), "", &error));
  EXPECT_EQ(emulator_->requestCount("files/upload"), 3u);
  EXPECT_THAT(log_.messages(log::Level::kError),
              Contains(StartsWith("[DROPBOX] Upload ERROR: Error Domain=Dropbox Code=429")));
  EXPECT_TRUE(log_.contains(log::Level::kWarning,
                            "[DROPBOX] Rate limited, will retry uploadArbitraryFile in 3.0s "
                            "[attempt 1]"));
  EXPECT_EQ(readBack("/a.bin"), PlistValue(Bytes{1, 2, 3}));
}

}  // namespace
}  // namespace wdc::testing_support
