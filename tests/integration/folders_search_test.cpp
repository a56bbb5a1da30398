// Folders and search against the emulator: the server's search decides what matches (tokens,
// prefixes, any depth, its order and limit), and the backend takes its list as it stands.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "lock_fixture.h"
#include "support/test_util.h"

namespace wdc::testing_support {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class FoldersAndSearch : public LockAndDeleteTest {
 protected:
  std::vector<std::string> search(const std::string& query, const std::string& folder,
                                  const std::string& excluding = "") {
    std::optional<Error> error;
    auto found = connection_->searchForMatchingFiles(query, folder, excluding, &error);
    EXPECT_NO_WDC_ERROR(error);
    std::vector<std::string> paths;
    if (!found) {
      ADD_FAILURE() << "search failed";
      return paths;
    }
    for (const auto& record : *found) {
      paths.push_back(*record->FilePath);
      // Only the path and its extension are filled in.
      EXPECT_EQ(record->Extension, record->FilePath->substr(record->FilePath->rfind('.') + 1));
      EXPECT_FALSE(record->UID || record->OpType || record->ModificationDate);
    }
    return paths;
  }

  std::shared_ptr<WebDAVConnect> connection_ = newConnection();
};

TEST_F(FoldersAndSearch, SearchListsWholeLowerCasePathsAtAnyDepthInTheServersOrder) {
  put("/Tasks/o_a.tod");
  put("/Tasks/Sub/B.TOD");
  put("/Tasks/notes.txt");
  put("/Other/c.tod");
  EXPECT_THAT(search("tod", "Tasks"), ElementsAre("/tasks/o_a.tod", "/tasks/sub/b.tod"));
  EXPECT_THAT(search(".TOD", "/tasks/"), ElementsAre("/tasks/o_a.tod", "/tasks/sub/b.tod"));
  EXPECT_THAT(search("tod", ""), ElementsAre("/other/c.tod", "/tasks/o_a.tod", "/tasks/sub/b.tod"));
}

TEST_F(FoldersAndSearch, NameTokensMatchCaseInsensitivelyWithThePrefixRuleOnTheLastOne) {
  put("/Docs/Bat Cave.txt");
  put("/Docs/batman car.txt");
  put("/Docs/Report 2024.txt");
  EXPECT_THAT(search("bat c", "Docs"), ElementsAre("/docs/bat cave.txt"));
  EXPECT_THAT(search("REP", "Docs"), ElementsAre("/docs/report 2024.txt"));
  EXPECT_THAT(search("port", "Docs"), IsEmpty());  // a prefix of a word, not any substring
}

TEST_F(FoldersAndSearch, TheExcludedNameIsComparedInLowerCase) {
  put("/Tasks/a.tod");
  put("/Tasks/Sub/b.tod");
  EXPECT_THAT(search("tod", "Tasks", "B.TOD"), ElementsAre("/tasks/a.tod"));
  EXPECT_THAT(search("tod", "Tasks", ""), ElementsAre("/tasks/a.tod", "/tasks/sub/b.tod"));
}

TEST_F(FoldersAndSearch, TheServersResultLimitIsWhatTheCallerGets) {
  for (int i = 0; i < 120; ++i) put(fmt::format("/Many/r{:03}.tod", i));
  auto found = search("tod", "Many");
  ASSERT_EQ(found.size(), 100u);
  EXPECT_EQ(found.front(), "/many/r000.tod");
  EXPECT_EQ(found.back(), "/many/r099.tod");
}

TEST_F(FoldersAndSearch, AMissingFolderIsAnEmptySearchButAFailedRequestIsAnError) {
  // The server's route error (path/not_found) carries no request error: nothing matched.
  std::optional<Error> error;
  auto none = connection_->searchForMatchingFiles("tod", "Nowhere", "", &error);
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->empty());
  EXPECT_NO_WDC_ERROR(error);

  failNext("files/search_v2", emu::FaultKind::kInternalError, 1);
  EXPECT_FALSE(connection_->doesDropboxContainFile("tod", "", "", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 500);
}

TEST_F(FoldersAndSearch, FolderExistenceIsAnExactCaseSensitiveNameMatchOfAnyKind) {
  ASSERT_TRUE(emulator_->createFolder("/Tasks"));
  put("/Notes/Archive");  // a file
  std::optional<Error> error;
  EXPECT_TRUE(connection_->doesDropboxFolderExist("Tasks", &error));
  EXPECT_FALSE(connection_->doesDropboxFolderExist("tasks", &error));
  EXPECT_TRUE(connection_->doesDropboxFolderExist("Notes/Archive", &error));
  EXPECT_FALSE(connection_->doesDropboxFolderExist("Missing", &error));
  EXPECT_NO_WDC_ERROR(error);
}

TEST_F(FoldersAndSearch, TheParentOfATopLevelPathWithALeadingSlashIsALoneSlash) {
  // "/Tasks" has the parent "/", which stays "/" and is not how the server names its root.
  ASSERT_TRUE(emulator_->createFolder("/Tasks"));
  std::optional<Error> error;
  EXPECT_FALSE(connection_->doesDropboxFolderExist("/Tasks", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 400);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(FoldersAndSearch, FileExistenceCountsAnyMatchBelowTheFolder) {
  put("/a/sub/b.tod");
  put("/elsewhere/c.tod");
  std::optional<Error> error;
  EXPECT_TRUE(connection_->doesDropboxFileExist("a/b.tod", &error));
  EXPECT_FALSE(connection_->doesDropboxFileExist("a/c.tod", &error));
  EXPECT_TRUE(connection_->doesDropboxContainFile("c", "elsewhere", "", &error));
  EXPECT_FALSE(connection_->doesDropboxContainFile("c", "elsewhere", "C.TOD", &error));
  EXPECT_NO_WDC_ERROR(error);
}

TEST_F(FoldersAndSearch, CreatingAFolderTwiceIsFalseTheSecondTime) {
  std::optional<Error> error;
  EXPECT_TRUE(connection_->createNewDropboxFolder("New/Folder", &error));
  EXPECT_NO_WDC_ERROR(error);
  auto created = emulator_->lookup("/New/Folder");
  ASSERT_TRUE(created);
  EXPECT_TRUE(created->isFolder);
  // A conflict is the route's own error: false, with no request error to report.
  EXPECT_FALSE(connection_->createNewDropboxFolder("/New/Folder/", &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_EQ(emulator_->requestCount("files/create_folder_v2"), 2u);
}

TEST_F(FoldersAndSearch, DeletingAFolderTakesEverythingInItAndNothingElse) {
  put("/Old/a.tod");
  put("/Old/Sub/b.tod");
  put("/Older/c.tod");
  std::optional<Error> error;
  EXPECT_TRUE(connection_->deleteFolder("Old", &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_THAT(emulator_->listPaths(), ElementsAre("/Older", "/Older/c.tod"));
  // Already gone: false, and no error to retry.
  EXPECT_FALSE(connection_->deleteFolder("Old", &error));
  EXPECT_NO_WDC_ERROR(error);
  EXPECT_TRUE(env_.sleeps().empty());
}

TEST_F(FoldersAndSearch, DeleteFolderRetriesServerErrors) {
  put("/Old/a.tod");
  failNext("files/delete_v2", emu::FaultKind::kInternalError, 2);
  log::CaptureLog log;
  std::optional<Error> error;
  EXPECT_TRUE(connection_->deleteFolder("Old", &error));
  EXPECT_THAT(sleptSeconds(), ElementsAre(0.5, 0.5));
  EXPECT_THAT(
      log.messages(log::Level::kError),
      testing::Contains(testing::StartsWith("[DROPBOX] ERROR: Error Domain=Dropbox Code=500"))
          .Times(2));
  EXPECT_THAT(log.messages(log::Level::kDebug),
              testing::Contains(testing::StartsWith("[DROPBOX] ERROR, WILL RETRY deleteFolder: "))
                  .Times(2));
}

}  // namespace
}  // namespace wdc::testing_support
