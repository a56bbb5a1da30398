// The local-folder backend on a real folder under the VirtualEnv's temporary directory, with
// its kept behaviours: attributes looked up by bare name, uploads always into the root, and
// deleteLocalFolder removing the path as given.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "local/local_paths.h"
#include "platform/logger.h"
#include "platform/virtual_env.h"
#include "support/test_util.h"
#include "webdavconnect/payload.h"
#include "webdavconnect/webdav_connect.h"

namespace wdc {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

// Changes the process's current directory for one scope.
class CurrentDirectory {
 public:
  explicit CurrentDirectory(const fs::path& dir) : previous_(fs::current_path()) {
    fs::current_path(dir);
  }
  ~CurrentDirectory() { fs::current_path(previous_); }

 private:
  fs::path previous_;
};

class LocalBackendTest : public testing::Test {
 protected:
  void SetUp() override {
    root_ = env_.temporaryDirectory() / "Local";
    elsewhere_ = env_.temporaryDirectory() / "elsewhere";
    fs::create_directories(root_);
    fs::create_directories(elsewhere_);
    WebDAVConnect::setLocalRootFolderForProcess(root_);
  }

  // Writes a file in `folder` (relative to the root) with the given modification time.
  fs::path putFile(const std::string& folder, const std::string& name, int64_t unixSeconds,
                   const Bytes& bytes = test::bytesOf("x")) {
    const fs::path dir = folder.empty() ? root_ : root_ / folder;
    fs::create_directories(dir);
    test::writeFileBytes(dir / name, bytes);
    fs::last_write_time(dir / name, std::chrono::file_clock::from_sys(
                                        std::chrono::sys_seconds(seconds(unixSeconds))));
    return dir / name;
  }

  std::shared_ptr<WebDAVFileContents> record(const PlistDictionary& payload) {
    auto meta = std::make_shared<WebDAVFileMetaData>();
    meta->OpType = "1";
    meta->ContainerUID = "C";
    meta->ParentUID = "P";
    meta->UID = "U";
    meta->Extension = "tod";
    return std::make_shared<WebDAVFileContents>(meta, std::make_shared<PlistDictionary>(payload));
  }

  std::vector<std::string> names(const std::optional<FileList>& list) {
    std::vector<std::string> out;
    for (const auto& r : list.value_or(FileList{})) out.push_back(r->FilePath.value_or("?"));
    return out;
  }

  VirtualEnv env_;
  ScopedEnv use_{env_};
  WebDAVConnect connection_{0, std::nullopt, std::nullopt};
  fs::path root_;
  fs::path elsewhere_;
};

TEST_F(LocalBackendTest, UploadWritesTheRootWhateverTheFolderAndReadsBack) {
  const PlistDictionary payload{{"Title", "Buy milk"}, {"Due", Date{700000000.0}}, {"N", 7}};
  auto contents = record(payload);
  auto meta = connection_.uploadFileWithObjectToLocal(contents, "F", "DEV", nullptr);
  ASSERT_NE(meta, nullptr);
  EXPECT_EQ(meta->FilePath, "o_1_k_C_p_P_i_U_d_DEV.tod");
  EXPECT_EQ(meta->ParentFolder, "F");
  EXPECT_EQ(meta->DeviceUDID, "DEV");
  EXPECT_EQ(meta->ModificationDate, Date::fromTimePoint(env_.now()));
  EXPECT_EQ(contents->FileMetaData, meta);  // the contents now carry the new metadata
  EXPECT_TRUE(fs::exists(root_ / "o_1_k_C_p_P_i_U_d_DEV.tod"));
  EXPECT_FALSE(fs::exists(root_ / "F"));

  std::optional<Error> error;
  ASSERT_TRUE(connection_.createNewLocalFolder("F", &error));
  EXPECT_TRUE(connection_.getFileListFromLocal(&error, "F", std::nullopt, std::nullopt)->empty());

  auto read = connection_.getContentsForLocalFile(meta, std::nullopt, nullptr);
  EXPECT_EQ(read->FileMetaData, meta);
  ASSERT_NE(read->FileContents, nullptr);
  EXPECT_EQ(*read->FileContents, payload);
  // The file is a stored payload any reader of the format can open.
  std::optional<Error> decodeError;
  EXPECT_EQ(decodeStoredPayload(test::readFileBytes(root_ / *meta->FilePath), &decodeError),
            PlistValue(payload));
}

TEST_F(LocalBackendTest, UploadNameWithAbsentFields) {
  auto contents = std::make_shared<WebDAVFileContents>(std::make_shared<WebDAVFileMetaData>(),
                                                       std::make_shared<PlistDictionary>());
  contents->FileMetaData->Extension = "cal";
  auto meta = connection_.uploadFileWithObjectToLocal(contents, std::nullopt, std::nullopt, nullptr);
  EXPECT_EQ(meta->FilePath, "o_(null)_k__p__i__d_.cal");
  EXPECT_TRUE(fs::exists(root_ / "o_(null)_k__p__i__d_.cal"));
}

TEST_F(LocalBackendTest, ListingParsesFiltersAndSortsOldestFirst) {
  putFile("F", "o_a_k_C_p_P_i_X_d_D.tod", 2000);
  putFile("F", "o_b_k_C_p_P_i_Y.tod", 1000);           // 8 components: no device
  putFile("F", "o_c_k_C_p_P_i.tod", 500);              // 7 components: not a record
  putFile("F", "notes.txt", 500);
  putFile("F", "o_d_k_C_p_P_i_Z_d_D.txt", 3000);
  CurrentDirectory cwd(root_ / "F");  // so the bare-name lookup finds the entries

  std::optional<Error> error;
  auto all = connection_.getFileListFromLocal(&error, "F", std::nullopt, std::nullopt);
  ASSERT_TRUE(all.has_value());
  EXPECT_FALSE(error.has_value());
  EXPECT_EQ(names(all), (std::vector<std::string>{"o_b_k_C_p_P_i_Y.tod", "o_a_k_C_p_P_i_X_d_D.tod",
                                                  "o_d_k_C_p_P_i_Z_d_D.txt"}));
  const auto& first = *all->front();
  EXPECT_EQ(first.ParentFolder, "F");
  EXPECT_EQ(first.OpType, "b");
  EXPECT_EQ(first.UID, "Y");
  EXPECT_FALSE(first.DeviceUDID.has_value());
  EXPECT_FALSE(first.Extension.has_value());
  EXPECT_EQ(first.ModificationDateAbsolute, 1000);
  EXPECT_EQ(all->at(1)->DeviceUDID, "D");

  auto tod = connection_.getFileListFromLocal(&error, "F", std::nullopt,
                                              std::vector<std::string>{"tod"});
  EXPECT_EQ(names(tod).size(), 2u);
  // A file modified exactly at the limit is kept; older ones are not.
  auto recent = connection_.getFileListFromLocal(&error, "F", Date::fromUnixSeconds(2000),
                                                 std::nullopt);
  EXPECT_EQ(names(recent),
            (std::vector<std::string>{"o_a_k_C_p_P_i_X_d_D.tod", "o_d_k_C_p_P_i_Z_d_D.txt"}));
}

TEST_F(LocalBackendTest, ListingLooksAttributesUpByBareName) {
  putFile("F", "o_a_k_C_p_P_i_X_d_D.tod", 2000);
  CurrentDirectory cwd(elsewhere_);  // the entry's bare name does not resolve here
  std::optional<Error> error;
  auto list = connection_.getFileListFromLocal(&error, "F", Date::fromUnixSeconds(5000),
                                               std::nullopt);
  ASSERT_TRUE(list.has_value());
  ASSERT_EQ(list->size(), 1u);  // no date, so the limit cannot skip it
  EXPECT_FALSE(list->front()->ModificationDate.has_value());
  ASSERT_TRUE(error.has_value());  // the failed lookup of the last entry
  EXPECT_EQ(error->code(), ENOENT);

  // With an entry of that name in the current directory, its date is the one used.
  test::writeFileBytes(elsewhere_ / "o_a_k_C_p_P_i_X_d_D.tod", test::bytesOf("y"));
  fs::last_write_time(elsewhere_ / "o_a_k_C_p_P_i_X_d_D.tod",
                      std::chrono::file_clock::from_sys(std::chrono::sys_seconds(seconds(9000))));
  list = connection_.getFileListFromLocal(&error, "F", std::nullopt, std::nullopt);
  EXPECT_EQ(list->front()->ModificationDateAbsolute, 9000);
  EXPECT_FALSE(error.has_value());  // the last lookup succeeded and cleared it
}

TEST_F(LocalBackendTest, ListingAMissingFolderFailsAndLogs) {
  log::CaptureLog capture;
  std::optional<Error> error;
  EXPECT_FALSE(connection_.getFileListFromLocal(&error, "missing", std::nullopt, std::nullopt));
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_TRUE(capture.contains(log::Level::kError, error->localizedDescription()));
}

TEST_F(LocalBackendTest, UnreadableFilesGiveContentsWithoutPayload) {
  auto meta = std::make_shared<WebDAVFileMetaData>();
  meta->FilePath = "o_1_k_C_p_P_i_U_d_D.tod";
  std::optional<Error> error;
  auto missing = connection_.getContentsForLocalFile(meta, "G", &error);
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(missing->FileMetaData, meta);
  EXPECT_EQ(missing->FileContents, nullptr);
  putFile("G", *meta->FilePath, 0, Bytes{1, 2, 3});
  auto garbage = connection_.getContentsForLocalFile(meta, "G", &error);
  EXPECT_EQ(garbage->FileMetaData, meta);
  EXPECT_EQ(garbage->FileContents, nullptr);
  EXPECT_FALSE(error.has_value());  // reading never reports
  // An archive stored without gzip is read as it is.
  putFile("G", *meta->FilePath, 0,
          archiveTopLevelObjects({{"data", PlistDictionary{{"k", "v"}}}}, true));
  auto contents = connection_.getContentsForLocalFile(meta, "G", &error);
  ASSERT_NE(contents->FileContents, nullptr);
  EXPECT_EQ(*contents->FileContents->find("k"), PlistValue("v"));
}

TEST_F(LocalBackendTest, DeletingRecords) {
  auto meta = std::make_shared<WebDAVFileMetaData>();
  meta->FilePath = "o_1_k_C_p_P_i_U_d_D.tod";
  std::optional<Error> error;
  EXPECT_TRUE(connection_.deleteFileAtPathFromLocal(meta, "F", &error));  // nothing there
  const fs::path file = putFile("F", *meta->FilePath, 0);
  EXPECT_TRUE(connection_.deleteFileAtPathFromLocal(meta, "F", &error));
  EXPECT_FALSE(fs::exists(file));
  EXPECT_FALSE(error.has_value());
}

TEST_F(LocalBackendTest, CreatingAndTestingFolders) {
  std::optional<Error> error;
  EXPECT_FALSE(connection_.doesLocalFolderExist("a/b", nullptr));
  EXPECT_TRUE(connection_.createNewLocalFolder("a/b", &error));
  EXPECT_TRUE(fs::is_directory(root_ / "a" / "b"));
  putFile("a/b", "keep", 0);
  EXPECT_TRUE(connection_.createNewLocalFolder("/a//b/", &error));  // exists: left alone
  EXPECT_TRUE(fs::exists(root_ / "a" / "b" / "keep"));
  EXPECT_TRUE(connection_.doesLocalFolderExist("a/b/keep", nullptr));  // a file counts too
  EXPECT_FALSE(error.has_value());

  EXPECT_FALSE(connection_.createNewLocalFolder("a/b/keep/sub", &error));  // under a file
  EXPECT_TRUE(error.has_value());
}

TEST_F(LocalBackendTest, DeleteLocalFolderRemovesThePathAsGiven) {
  std::optional<Error> error;
  fs::create_directories(root_ / "F");
  {
    CurrentDirectory cwd(elsewhere_);
    // root/F exists, but "F" relative to the current directory does not: nothing is removed.
    EXPECT_FALSE(connection_.deleteLocalFolder("F", &error));
    EXPECT_TRUE(error.has_value());
    EXPECT_TRUE(fs::exists(root_ / "F"));

    fs::create_directories(elsewhere_ / "F");
    error.reset();
    EXPECT_TRUE(connection_.deleteLocalFolder("F", &error));
    EXPECT_FALSE(fs::exists(elsewhere_ / "F"));  // the current directory's F went
    EXPECT_TRUE(fs::exists(root_ / "F"));        // the root's stayed

    // Nothing at root/G: true, and the current directory's G is not touched.
    fs::create_directories(elsewhere_ / "G");
    EXPECT_TRUE(connection_.deleteLocalFolder("G", &error));
    EXPECT_TRUE(fs::exists(elsewhere_ / "G"));
  }
}

TEST_F(LocalBackendTest, UnsupportedOperationsAreEmpty) {
  std::optional<Error> error;
  EXPECT_FALSE(connection_.getLocalAccountUsername(&error));
  EXPECT_EQ(connection_.getCurrentLocalLockFile(&error), nullptr);
  EXPECT_EQ(connection_.lockDirectoryLocal("owner", &error), nullptr);
  EXPECT_FALSE(connection_.unlockDirectoryLocal("owner_1.000000", &error));
  EXPECT_FALSE(connection_.getHashFromLocal(&error, "F"));
  EXPECT_FALSE(connection_.getDeltaFileListFromLocal(&error, "F", "c", "tod", true));
  EXPECT_FALSE(connection_.uploadArbitraryFileToLocal("n", PlistValue(1), "F", &error));
  EXPECT_FALSE(connection_.downloadArbitraryFileFromLocal("n", "F", &error));
  EXPECT_FALSE(connection_.deleteArbitraryFileFromLocal("n", "F", &error));
  EXPECT_FALSE(error.has_value());
}

TEST(LocalPaths, JoinWithOneSeparator) {
  EXPECT_EQ(appendingPathComponent("/r", "F"), "/r/F");
  EXPECT_EQ(appendingPathComponent("/r/", "/F/"), "/r/F");
  EXPECT_EQ(appendingPathComponent("/r", "a//b"), "/r/a/b");
  EXPECT_EQ(appendingPathComponent("/r", ""), "/r");
  EXPECT_EQ(appendingPathComponent("/", ""), "/");
}

}  // namespace
}  // namespace wdc
