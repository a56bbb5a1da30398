// Decoders of server answers: published shapes decode, tag numbers follow the API's order, and
// answers of the wrong shape are refused instead of half-read.
#include "dbx/json_codec.h"
#include "dbx/client_core.h"
#include "dbx/http_response.h"

#include <gtest/gtest.h>

namespace wdc::dbx {
namespace {

constexpr std::string_view kFile =
    R"({".tag": "file", "name": "Report.txt", "path_lower": "/notes/report.txt",
        "path_display": "/Notes/Report.txt", "id": "id:b7Xq2LmN0PAAAAAAAAAAEw",
        "client_modified": "2024-05-01T12:30:05Z", "server_modified": "2024-05-01T12:30:07Z",
        "rev": "0163c5d2f1a400000002a7e3c91", "size": 120, "is_downloadable": true,
        "content_hash": "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358"})";

std::string listing(std::string_view entries) {
  return R"({"entries": [)" + std::string(entries) + R"(], "cursor": "AAGv", "has_more": true})";
}

TEST(DbxDecoders, ListFolderResultKeepsEntryKindsAndOrder) {
  auto result = json::decodeText<DBFILESListFolderResult>(listing(
      R"({".tag": "folder", "name": "Notes", "path_lower": "/notes", "id": "id:1"},)" +
      std::string(kFile) +
      R"(, {".tag": "deleted", "name": "old.txt", "path_lower": "/notes/old.txt"})"));
  ASSERT_TRUE(result);
  ASSERT_EQ(result->entries.size(), 3u);
  EXPECT_TRUE(result->entries[0]->isFolder());
  const DBFILESFileMetadata* file = result->entries[1]->asFile();
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->pathLower, "/notes/report.txt");
  EXPECT_EQ(file->rev, "0163c5d2f1a400000002a7e3c91");
  EXPECT_EQ(file->size, 120u);
  ASSERT_TRUE(file->clientModified);
  EXPECT_EQ(formatTimestamp(*file->clientModified), "2024-05-01T12:30:05Z");
  EXPECT_TRUE(result->entries[2]->isDeleted());
  EXPECT_EQ(result->entries[2]->asFile(), nullptr);
  EXPECT_EQ(result->cursor, "AAGv");
  EXPECT_TRUE(result->hasMore);
}

TEST(DbxDecoders, AFileEntryWithoutClientModifiedKeepsTheDateAbsent) {
  auto result = json::decodeText<DBFILESListFolderResult>(listing(
      R"({".tag": "file", "name": "a", "path_lower": "/a", "id": "id:1", "server_modified": "2024-05-01T12:30:07Z", "rev": "0123456789", "size": 1})"));
  ASSERT_TRUE(result);
  ASSERT_EQ(result->entries.size(), 1u);
  ASSERT_NE(result->entries[0]->asFile(), nullptr);
  EXPECT_FALSE(result->entries[0]->asFile()->clientModified);
}

TEST(DbxDecoders, RefusesAnswersOfTheWrongShape) {
  const std::string bad[] = {
      // a file entry with a client_modified that is not a timestamp
      listing(R"({".tag": "file", "name": "a", "id": "id:1", "client_modified": "yesterday", "server_modified": "2024-05-01T12:30:07Z", "rev": "0123456789", "size": 1})"),
      // size as a string, negative size
      listing(R"({".tag": "file", "name": "a", "id": "id:1", "client_modified": "2024-05-01T12:30:07Z", "server_modified": "2024-05-01T12:30:07Z", "rev": "0123456789", "size": "1"})"),
      listing(R"({".tag": "file", "name": "a", "id": "id:1", "client_modified": "2024-05-01T12:30:07Z", "server_modified": "2024-05-01T12:30:07Z", "rev": "0123456789", "size": -1})"),
      // an entry kind this client does not know, an entry that is not an object
      listing(R"({".tag": "symlink", "name": "a"})"),
      listing(R"("file")"),
      // name of the wrong type
      listing(R"({".tag": "folder", "name": 7, "id": "id:1"})"),
      // entries not a list, cursor missing or empty, has_more missing
      R"({"entries": {}, "cursor": "c", "has_more": false})",
      R"({"entries": [], "has_more": false})",
      R"({"entries": [], "cursor": "", "has_more": false})",
      R"({"entries": [], "cursor": "c"})",
      // not JSON, or trailing garbage, or a bare value
      R"({"entries": [], "cursor": "c", "has_more": false)",
      R"({"entries": [], "cursor": "c", "has_more": false} x)",
      "null",
  };
  for (const auto& text : bad) {
    EXPECT_FALSE(json::decodeText<DBFILESListFolderResult>(text)) << text;
  }
}

TEST(DbxDecoders, RefusesNestingBeyondTheDepthLimit) {
  std::string deep(200, '[');
  deep += std::string(200, ']');
  EXPECT_FALSE(json::parse(deep));
  EXPECT_TRUE(json::parse(std::string(10, '[') + std::string(10, ']')));
}

TEST(DbxDecoders, TimestampsAreStrictUtcSeconds) {
  auto parsed = parseTimestamp("2015-05-12T15:50:38Z");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(formatTimestamp(*parsed), "2015-05-12T15:50:38Z");
  for (const char* bad : {"2015-05-12T15:50:38.5Z", "2015-05-12T15:50:38+01:00", "2015-02-30T00:00:00Z",
                          "2015-05-12 15:50:38Z", "2015-05-12T25:00:00Z", "+015-05-12T15:50:38Z", ""}) {
    EXPECT_FALSE(parseTimestamp(bad)) << bad;
  }
}

TEST(DbxDecoders, TimestampsOutsideTheClockRangeAreRefused) {
  using std::chrono::seconds;
  auto unixSeconds = [](const DBTimestamp& t) {
    return std::chrono::duration_cast<seconds>(t.time_since_epoch()).count();
  };
  auto epoch = parseTimestamp("1970-01-01T00:00:00Z");
  ASSERT_TRUE(epoch);
  EXPECT_EQ(epoch->time_since_epoch().count(), 0);
  // The last and first whole seconds a signed 64-bit nanosecond count holds, and a day inside.
  for (const char* edge : {"2262-04-11T23:47:16Z", "1677-09-21T00:12:44Z", "1677-09-22T00:00:00Z",
                           "2262-04-11T00:00:00Z"}) {
    auto parsed = parseTimestamp(edge);
    ASSERT_TRUE(parsed) << edge;
    EXPECT_EQ(formatTimestamp(*parsed), edge);
  }
  EXPECT_EQ(unixSeconds(*parseTimestamp("2262-04-11T23:47:16Z")), 9'223'372'036);
  EXPECT_EQ(unixSeconds(*parseTimestamp("1677-09-21T00:12:44Z")), -9'223'372'036);
  for (const char* outside : {"2262-04-11T23:47:17Z", "1677-09-21T00:12:43Z", "7252-01-01T00:00:00Z",
                              "0001-01-01T00:00:00Z", "9999-12-31T23:59:59Z", "0000-01-01T00:00:00Z"}) {
    EXPECT_FALSE(parseTimestamp(outside)) << outside;
  }
}

TEST(DbxDecoders, MovingATimestampStopsAtTheClockRange) {
  const DBTimestamp top{DBTimestamp::duration::max()};
  const DBTimestamp bottom{DBTimestamp::duration::min()};
  EXPECT_FALSE(timestampAfter(top, std::chrono::seconds(1)));
  EXPECT_FALSE(timestampAfter(bottom, std::chrono::seconds(-1)));
  // Overflow in the conversion to ticks alone, from an origin that is fine.
  EXPECT_FALSE(timestampAfter(DBTimestamp{}, std::chrono::seconds(9'300'000'000)));
  EXPECT_FALSE(timestampAfter(DBTimestamp{}, std::chrono::seconds(INT64_MIN)));
  auto back = timestampAfter(top, std::chrono::seconds(-1));
  ASSERT_TRUE(back);
  EXPECT_EQ(top - *back, std::chrono::seconds(1));
  auto later = timestampAfter(*parseTimestamp("2024-05-01T12:30:05Z"), std::chrono::hours(4));
  ASSERT_TRUE(later);
  EXPECT_EQ(formatTimestamp(*later), "2024-05-01T16:30:05Z");
}

TEST(DbxDecoders, AListingWithAnUnrepresentableDateIsABadAnswer) {
  std::string entry(kFile);
  entry.replace(entry.find("2024-05-01T12:30:05Z"), 20, "7252-05-01T12:30:05Z");
  const std::string text = listing(R"({".tag": "folder", "name": "Notes", "path_lower": "/notes", "id": "id:1"},)" + entry);
  EXPECT_FALSE(json::decodeText<DBFILESListFolderResult>(text));

  // The same answer arriving over the wire: a parse failure for the caller, nothing half read.
  HttpResponse response;
  response.status = 200;
  response.body = text;
  response.headers = {{"content-type", "application/json"}};
  detail::RawOutcome raw{classifyResponse(response, RouteStyle::kRpc), {}, {}};
  ASSERT_EQ(raw.classified.kind, ClassifiedResponse::Kind::kResult);
  std::optional<DBFILESListFolderResult> result;
  std::optional<DBFILESListFolderError> routeError;
  std::optional<DBRequestError> requestError;
  detail::typeOutcome(raw, result, routeError, requestError);
  EXPECT_FALSE(result);
  EXPECT_FALSE(routeError);
  ASSERT_TRUE(requestError);
  ASSERT_TRUE(requestError->nsError);
  EXPECT_EQ(requestError->nsError->code(), kURLErrorCannotParseResponse);
}

TEST(DbxDecoders, UnionTagsFollowThePublishedOrder) {
  auto lookup = json::decodeText<DBFILESLookupError>(R"({".tag": "not_found"})");
  ASSERT_TRUE(lookup);
  EXPECT_EQ(static_cast<int>(lookup->tag), 1);
  EXPECT_EQ(static_cast<int>(json::decodeText<DBFILESLookupError>(R"({".tag": "not_file"})")->tag), 2);
  EXPECT_EQ(static_cast<int>(json::decodeText<DBFILESLookupError>(R"({".tag": "not_folder"})")->tag), 3);
  auto reset = json::decodeText<DBFILESListFolderContinueError>(R"({".tag": "reset"})");
  ASSERT_TRUE(reset);
  EXPECT_EQ(static_cast<int>(reset->tag), 1);
  EXPECT_TRUE(reset->isReset());
  auto tooMany = json::decodeText<DBFILESDeleteError>(R"({".tag": "too_many_files"})");
  ASSERT_TRUE(tooMany);
  EXPECT_EQ(static_cast<int>(tooMany->tag), 3);
}

TEST(DbxDecoders, OpenUnionsMapUnknownTagsToOtherClosedOnesRefuseThem) {
  auto lookup = json::decodeText<DBFILESLookupError>(R"({".tag": "some_future_tag"})");
  ASSERT_TRUE(lookup);
  EXPECT_TRUE(lookup->isOther());
  EXPECT_FALSE(json::decodeText<DBFILESCreateFolderError>(R"({".tag": "some_future_tag"})"));
  EXPECT_FALSE(json::decodeText<DBFILESUploadSessionFinishBatchJobStatus>(R"({".tag": "failed"})"));
  EXPECT_FALSE(json::decodeText<DBFILESLookupError>(R"({"tag": "not_found"})"));
}

TEST(DbxDecoders, NestedRouteErrorsKeepTheirChain) {
  auto download = json::decodeText<DBFILESDownloadError>(
      R"({".tag": "path", "path": {".tag": "not_found"}})");
  ASSERT_TRUE(download);
  ASSERT_TRUE(download->isPath());
  EXPECT_TRUE(download->path->isNotFound());
  EXPECT_EQ(download->description(), "path/not_found");

  auto create = json::decodeText<DBFILESCreateFolderError>(
      R"({".tag": "path", "path": {".tag": "conflict", "conflict": {".tag": "folder"}}})");
  ASSERT_TRUE(create);
  EXPECT_EQ(create->description(), "path/conflict/folder");

  auto upload = json::decodeText<DBFILESUploadError>(
      R"({".tag": "path", "reason": {".tag": "conflict", "conflict": {".tag": "file"}}, "upload_session_id": "s"})");
  ASSERT_TRUE(upload);
  EXPECT_EQ(upload->uploadSessionId, "s");
  EXPECT_EQ(upload->description(), "path/conflict/file");

  // A member that carries a value must have it.
  EXPECT_FALSE(json::decodeText<DBFILESDownloadError>(R"({".tag": "path"})"));
  EXPECT_FALSE(json::decodeText<DBFILESDeleteError>(R"({".tag": "path_lookup", "path_lookup": 3})"));
}

TEST(DbxDecoders, FinishBatchEntriesCarryFlattenedSuccessAndNestedFailure) {
  auto status = json::decodeText<DBFILESUploadSessionFinishBatchJobStatus>(
      R"({".tag": "complete", "entries": [
          {".tag": "success", "name": "Report.txt", "path_lower": "/notes/report.txt",
           "path_display": "/Notes/Report.txt", "id": "id:1",
           "client_modified": "2024-05-01T12:30:05Z", "server_modified": "2024-05-01T12:31:00Z",
           "rev": "0163c5d2f1a4", "size": 3},
          {".tag": "failure", "failure": {".tag": "lookup_failed",
           "lookup_failed": {".tag": "incorrect_offset", "correct_offset": 120}}},
          {".tag": "failure", "failure": {".tag": "too_many_write_operations"}}]})");
  ASSERT_TRUE(status);
  ASSERT_TRUE(status->isComplete());
  const auto& entries = status->complete->entries;
  ASSERT_EQ(entries.size(), 3u);
  ASSERT_TRUE(entries[0].isSuccess());
  EXPECT_EQ(entries[0].success->pathDisplay, "/Notes/Report.txt");
  EXPECT_EQ(entries[0].success->rev, "0163c5d2f1a4");
  ASSERT_TRUE(entries[1].isFailure());
  EXPECT_EQ(entries[1].failure->lookupFailed->correctOffset, 120u);
  EXPECT_EQ(entries[1].failure->description(), "lookup_failed/incorrect_offset");
  EXPECT_EQ(entries[2].failure->tagName(), "too_many_write_operations");
  EXPECT_TRUE(entries[2].failure->isTooManyWriteOperations());
}

TEST(DbxDecoders, DeleteBatchStatusesAndLaunches) {
  auto complete = json::decodeText<DBFILESDeleteBatchJobStatus>(
      R"({".tag": "complete", "entries": [{".tag": "success", "metadata": )" + std::string(kFile) +
      R"(}, {".tag": "failure", "failure": {".tag": "path_lookup", "path_lookup": {".tag": "not_found"}}}]})");
  ASSERT_TRUE(complete);
  ASSERT_EQ(complete->complete->entries.size(), 2u);
  EXPECT_TRUE(complete->complete->entries[0].success->isFile());
  EXPECT_EQ(static_cast<int>(complete->complete->entries[1].failure->pathLookup->tag), 1);

  auto failed = json::decodeText<DBFILESDeleteBatchJobStatus>(
      R"({".tag": "failed", "failed": {".tag": "too_many_write_operations"}})");
  ASSERT_TRUE(failed);
  EXPECT_TRUE(failed->isFailed());
  EXPECT_EQ(failed->failed->tagName(), "too_many_write_operations");

  auto launch = json::decodeText<DBFILESDeleteBatchLaunch>(
      R"({".tag": "async_job_id", "async_job_id": "dbjid:1"})");
  ASSERT_TRUE(launch);
  EXPECT_EQ(launch->asyncJobId, "dbjid:1");
  EXPECT_FALSE(json::decodeText<DBFILESDeleteBatchLaunch>(R"({".tag": "async_job_id"})"));
}

TEST(DbxDecoders, SearchReadsBothTheV2AndTheClassicShape) {
  auto v2 = json::decodeText<DBFILESSearchResult>(
      R"({"matches": [{"metadata": {".tag": "metadata", "metadata": )" + std::string(kFile) +
      R"(}, "match_type": {".tag": "filename"}}], "has_more": false})");
  ASSERT_TRUE(v2);
  ASSERT_EQ(v2->matches.size(), 1u);
  EXPECT_EQ(v2->matches[0].metadata->name, "Report.txt");
  EXPECT_FALSE(v2->more);

  auto classic = json::decodeText<DBFILESSearchResult>(
      R"({"matches": [{"match_type": {".tag": "filename"}, "metadata": )" + std::string(kFile) +
      R"(}], "more": true, "start": 1})");
  ASSERT_TRUE(classic);
  EXPECT_TRUE(classic->more);
  EXPECT_EQ(classic->start, 1u);

  // A v2 match whose wrapper is missing is not silently read as a classic one.
  EXPECT_FALSE(json::decodeText<DBFILESSearchResult>(
      R"({"matches": [{"metadata": )" + std::string(kFile) + R"(}], "has_more": false})"));
}

TEST(DbxDecoders, AccountNeedsAnIdAndMayLackADisplayName) {
  auto account = json::decodeText<DBUSERSFullAccount>(
      R"({"account_id": "dbid:AADq1kV3b7XyZp0Qw2Er4Ty6Ui8Op9AsDfG", "name": {"given_name": "Ada",
          "surname": "Lovelace", "familiar_name": "Ada", "display_name": "Ada Lovelace",
          "abbreviated_name": "AL"}, "email": "ada@example.com", "email_verified": true,
          "disabled": false, "locale": "en", "account_type": {".tag": "basic"}})");
  ASSERT_TRUE(account);
  EXPECT_EQ(account->name.displayName, "Ada Lovelace");
  EXPECT_EQ(account->accountType, "basic");
  auto nameless = json::decodeText<DBUSERSFullAccount>(R"({"account_id": "x", "name": {}})");
  ASSERT_TRUE(nameless);
  EXPECT_FALSE(nameless->name.displayName.has_value());
  EXPECT_FALSE(json::decodeText<DBUSERSFullAccount>(R"({"name": {"display_name": "A"}})"));
  EXPECT_FALSE(json::decodeText<DBUSERSFullAccount>(
      R"({"account_id": "x", "name": {"display_name": 5}})"));
  EXPECT_FALSE(json::decodeText<DBUSERSFullAccount>(
      R"({"account_id": "x", "name": {"display_name": "A"}, "email_verified": "yes"})"));
}

TEST(DbxEncoders, HeaderArgumentsStaySevenBitClean) {
  json::Json arg = {{"path", "/\xC3\x9C" "n\xC3\xAF \xE2\x9C\x93\x7F\xF0\x9F\x98\x80.txt"}};
  EXPECT_EQ(json::headerSafe(arg),
            R"({"path":"/\u00dcn\u00ef \u2713\u007f\ud83d\ude00.txt"})");
}

TEST(DbxEncoders, SearchGoesOutAsSearchV2WithOptionalPath) {
  DBFILESSearchArg arg;
  arg.query = ".tsl";
  EXPECT_EQ(json::encodeSearchV2(arg),
            json::Json::parse(R"({"query": ".tsl", "options": {"max_results": 100, "filename_only": true}})"));
  arg.path = "/tod";
  EXPECT_EQ(json::encodeSearchV2(arg)["options"]["path"], "/tod");
}

TEST(DbxEncoders, CommitInfoWritesModeAsTaggedUnion) {
  DBFILESCommitInfo commit;
  commit.path = "/a";
  commit.mode = DBFILESWriteMode::overwrite();
  commit.mute = true;
  EXPECT_EQ(json::encode(commit),
            json::Json::parse(R"({"path": "/a", "mode": {".tag": "overwrite"}, "autorename": false,
                                  "mute": true, "strict_conflict": false})"));
  commit.mode = DBFILESWriteMode::updateRev("0123456789");
  commit.clientModified = parseTimestamp("2024-05-01T12:30:05Z");
  auto encoded = json::encode(commit);
  EXPECT_EQ(encoded["mode"], json::Json::parse(R"({".tag": "update", "update": "0123456789"})"));
  EXPECT_EQ(encoded["client_modified"], "2024-05-01T12:30:05Z");
}

}  // namespace
}  // namespace wdc::dbx
