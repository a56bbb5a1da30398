// Routes over real HTTP against the in-process emulator: injected faults as a client sees them,
// token expiry and refresh in virtual time, cursors, batch limits, header-safe arguments and the
// ZIP layout. (The official SDK covers the success paths of every route in sdk_conformance.py.)
#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "emulator/emulator.h"
#include "emulator/http_client.h"
#include "platform/virtual_env.h"

namespace wdc::emu {
namespace {

using testing::HttpClient;
using testing::HttpReply;
using Json = nlohmann::json;
using namespace std::chrono_literals;

class RoutesTest : public ::testing::Test {
 protected:
  explicit RoutesTest(EmulatorOptions options = EmulatorOptions{.token = "T"}) {
    options.env = &env_;
    emulator_ = std::make_unique<Emulator>(options);
  }
  void SetUp() override {
    env_.setRealGrace(0ms);
    std::string error;
    ASSERT_TRUE(emulator_->start(&error)) << error;
    client_ = std::make_unique<HttpClient>(emulator_->baseUrl(), "");
  }
  static Json json(const HttpReply& reply) { return Json::parse(reply.body); }
  HttpReply download(const std::string& path) {
    return client_->download("files/download", Json{{"path", path}}.dump());
  }
  VirtualEnv env_;
  std::unique_ptr<Emulator> emulator_;
  std::unique_ptr<HttpClient> client_;
};

TEST_F(RoutesTest, RateLimitStatesItsBackOffWhereTheRuleSays) {
  emulator_->putFile("/a.txt", "abc");
  struct Case {
    const char* text;
    const char* header;
    std::optional<int> bodyRetryAfter;
    bool jsonBody;
  };
  for (const Case& c :
       {Case{"files/download:429:2#1", "2", 2, true},
        Case{"files/download:429w:4h#1", "4", {}, false},
        Case{"files/download:429:3b#1", "", 3, true}, Case{"files/download:429#1", "", {}, true}}) {
    SCOPED_TRACE(c.text);
    emulator_->addFault(*parseFaultRule(c.text));
    const HttpReply reply = download("/a.txt");
    EXPECT_EQ(reply.status, 429);
    EXPECT_EQ(reply.header("retry-after"), c.header);
    if (c.jsonBody) {
      ASSERT_EQ(reply.contentType(), "application/json");
      const Json error = json(reply)["error"];
      EXPECT_EQ(error["reason"][".tag"], "too_many_requests");
      EXPECT_EQ(error.contains("retry_after"), c.bodyRetryAfter.has_value());
      if (c.bodyRetryAfter) {
        EXPECT_EQ(error["retry_after"], *c.bodyRetryAfter);
      }
    } else {
      EXPECT_EQ(reply.body, "too_many_write_operations");
    }
    // Scripted for one request: the next download is served.
    EXPECT_EQ(download("/a.txt").body, "abc");
  }
}

TEST_F(RoutesTest, TransportFaultsLookLikeBrokenConnections) {
  emulator_->putFile("/a.txt", std::string(1000, 'x'));
  emulator_->addFault(*parseFaultRule("files/download:drop#1"));
  EXPECT_EQ(download("/a.txt").curlCode, CURLE_GOT_NOTHING);
  emulator_->addFault(*parseFaultRule("files/download:truncate#1"));
  const HttpReply cut = download("/a.txt");
  EXPECT_EQ(cut.curlCode, CURLE_PARTIAL_FILE);
  EXPECT_EQ(cut.body.size(), 500u);
  emulator_->addFault(*parseFaultRule("*:500#1"));
  emulator_->addFault(*parseFaultRule("*:503#1"));
  EXPECT_EQ(download("/a.txt").status, 500);
  EXPECT_EQ(download("/a.txt").status, 503);
  const HttpReply fine = download("/a.txt");
  EXPECT_EQ(fine.curlCode, CURLE_OK);
  EXPECT_EQ(fine.body.size(), 1000u);
  // Faulty requests are counted like the others.
  EXPECT_EQ(emulator_->requestCount("files/download"), 5u);
}

TEST_F(RoutesTest, LatencyWaitsThroughTheEnv) {
  emulator_->addFault(*parseFaultRule("users/get_current_account:latency:30000#1"));
  const auto before = env_.uptime();
  EXPECT_EQ(client_->rpc("users/get_current_account", "null").status, 200);
  EXPECT_GE(env_.uptime() - before, 30s);
}

TEST_F(RoutesTest, IssuedAccessTokensExpireAndRefresh) {
  emulator_->setAccessTokenLifetime(60s);
  const std::string form = "grant_type=refresh_token&refresh_token=R&client_id=K";
  const HttpReply issued =
      client_->post("oauth2/token", {"Content-Type: application/x-www-form-urlencoded"}, &form);
  ASSERT_EQ(issued.status, 200) << issued.body;
  EXPECT_EQ(json(issued)["expires_in"], 60);
  const std::string token = json(issued)["access_token"];
  EXPECT_EQ(client_->rpc("users/get_current_account", "null", token).status, 200);

  env_.advance(61s);
  const HttpReply expired = client_->rpc("users/get_current_account", "null", token);
  EXPECT_EQ(expired.status, 401);
  EXPECT_EQ(json(expired)["error"][".tag"], "expired_access_token");
  EXPECT_EQ(json(expired)["error_summary"], "expired_access_token/..");

  const std::string fresh = json(client_->post(
      "oauth2/token", {"Content-Type: application/x-www-form-urlencoded"}, &form))["access_token"];
  EXPECT_NE(fresh, token);
  EXPECT_EQ(client_->rpc("users/get_current_account", "null", fresh).status, 200);
  emulator_->expireAccessTokens(/*includeConfigured=*/true);
  EXPECT_EQ(client_->rpc("users/get_current_account", "null", fresh).status, 401);
  EXPECT_EQ(json(client_->rpc("users/get_current_account", "null", "T"))["error"][".tag"],
            "expired_access_token");
  EXPECT_EQ(emulator_->issuedAccessTokenCount(), 2u);

  const std::string wrongGrant = "grant_type=password";
  EXPECT_EQ(json(client_->post("oauth2/token", {}, &wrongGrant))["error"],
            "unsupported_grant_type");
}

TEST_F(RoutesTest, CursorsPageFollowChangesAndReset) {
  for (int i = 0; i < 5; ++i) emulator_->putFile("/f/" + std::to_string(i) + ".txt", "x");
  HttpReply reply = client_->rpc("files/list_folder", R"({"path": "/f", "limit": 2})");
  ASSERT_EQ(reply.status, 200) << reply.body;
  std::vector<std::string> names;
  Json page = json(reply);
  for (;;) {
    for (const Json& entry : page["entries"]) names.push_back(entry["name"]);
    if (!page["has_more"]) break;
    page =
        json(client_->rpc("files/list_folder/continue", Json{{"cursor", page["cursor"]}}.dump()));
  }
  EXPECT_EQ(names, (std::vector<std::string>{"0.txt", "1.txt", "2.txt", "3.txt", "4.txt"}));
  const std::string since = page["cursor"];

  // Nothing changed: an empty page. Then a change, seen once.
  EXPECT_TRUE(
      json(client_->rpc("files/list_folder/continue", Json{{"cursor", since}}.dump()))["entries"]
          .empty());
  emulator_->removePath("/f/1.txt");
  const Json changes =
      json(client_->rpc("files/list_folder/continue", Json{{"cursor", since}}.dump()));
  ASSERT_EQ(changes["entries"].size(), 1u);
  EXPECT_EQ(changes["entries"][0][".tag"], "deleted");
  EXPECT_EQ(changes["entries"][0]["path_display"], "/f/1.txt");

  emulator_->invalidateCursors();
  const HttpReply reset =
      client_->rpc("files/list_folder/continue", Json{{"cursor", since}}.dump());
  EXPECT_EQ(reset.status, 409);
  EXPECT_EQ(json(reset)["error_summary"], "reset/..");
}

TEST_F(RoutesTest, BadArgumentsGetPlainTextAnswers) {
  struct Case {
    const char* route;
    const char* body;
    const char* message;
  };
  for (const Case& c : {
           Case{"files/list_folder", R"({"path": "/"})",
                "Specify the root folder as an empty string"},
           Case{"files/list_folder", R"({"path": 3})", "path: expected string, got integer"},
           Case{"files/list_folder", R"({"path": "", "limit": 0})", "limit: 0 is out of range"},
           Case{"files/list_folder", R"({"path": "", "recursive": "yes"})",
                "recursive: expected boolean"},
           Case{"files/list_folder", "{", "could not decode input as JSON"},
           Case{"files/delete_v2", "{}", "missing required field 'path'"},
           Case{"files/search", R"({"path": "", "query": "a", "mode": "everything"})",
                "mode: unknown tag"},
       }) {
    SCOPED_TRACE(c.body);
    const HttpReply reply = client_->rpc(c.route, c.body);
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(reply.contentType().rfind("text/plain", 0), 0u);
    EXPECT_NE(reply.body.find(c.message), std::string::npos) << reply.body;
    EXPECT_EQ(reply.body.rfind("Error in call to API function \"" + std::string(c.route) + "\"", 0),
              0u);
  }
  const std::string body = R"({"path": ""})";
  EXPECT_EQ(client_->post("files/list_folder", {"Authorization: Bearer T"}, &body).status, 400)
      << "an RPC body needs a JSON Content-Type";
  EXPECT_EQ(client_->download("files/download", "{not json").status, 400);
}

TEST_F(RoutesTest, HeaderArgumentsDecodeEscapesAndResultsComeBackEscaped) {
  // U+00DC and U+1F600 (a surrogate pair), as the SDKs escape them.
  const std::string path = "/\xc3\x9c-\xf0\x9f\x98\x80.txt";
  const HttpReply up = client_->upload(
      "files/upload", R"({"path": "/\u00dc-\ud83d\ude00.txt", "mode": "overwrite"})", "hi");
  ASSERT_EQ(up.status, 200) << up.body;
  EXPECT_EQ(json(up)["path_display"], path);
  const HttpReply down = download(path);
  ASSERT_EQ(down.status, 200);
  const std::string result = down.header("dropbox-api-result");
  EXPECT_NE(result.find("\\u00dc-\\ud83d\\ude00"), std::string::npos) << result;
  EXPECT_TRUE(std::all_of(result.begin(), result.end(),
                          [](char c) { return static_cast<unsigned char>(c) < 0x7f; }));
  EXPECT_EQ(down.body, "hi");
}

TEST_F(RoutesTest, DownloadHonoursRangeAndZipRefusesIt) {
  emulator_->putFile("/Top/a.txt", "0123456789");
  const HttpReply part =
      client_->post("files/download",
                    {"Authorization: Bearer T", "Dropbox-API-Arg: {\"path\": \"/Top/a.txt\"}",
                     "Range: bytes=2-4"},
                    nullptr);
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, "234");
  const HttpReply zip = client_->post(
      "files/download_zip",
      {"Authorization: Bearer T", "Dropbox-API-Arg: {\"path\": \"/Top\"}", "Range: bytes=0-1"},
      nullptr);
  EXPECT_EQ(zip.status, 400);
}

TEST_F(RoutesTest, UploadChecksASuppliedContentHash) {
  const HttpReply wrong = client_->upload(
      "files/upload", Json{{"path", "/a"}, {"content_hash", std::string(64, '0')}}.dump(), "abc");
  EXPECT_EQ(wrong.status, 409);
  EXPECT_EQ(json(wrong)["error"][".tag"], "content_hash_mismatch");
  const HttpReply right = client_->upload(
      "files/upload",
      Json{{"path", "/a"},
           {"content_hash", "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358"}}
          .dump(),
      "abc");
  EXPECT_EQ(right.status, 200);
}

TEST_F(RoutesTest, UploadRefusesAClientModifiedTheClockCannotHold) {
  for (const char* date : {"7252-01-01T00:00:00Z", "0001-01-01T00:00:00Z"}) {
    const HttpReply reply = client_->upload(
        "files/upload", Json{{"path", "/a"}, {"client_modified", date}}.dump(), "abc");
    EXPECT_EQ(reply.status, 400) << date;
    EXPECT_NE(reply.body.find("client_modified: time data"), std::string::npos) << reply.body;
  }
  const HttpReply kept = client_->upload(
      "files/upload", Json{{"path", "/a"}, {"client_modified", "2262-04-11T23:47:16Z"}}.dump(),
      "abc");
  ASSERT_EQ(kept.status, 200);
  EXPECT_EQ(json(kept)["client_modified"], "2262-04-11T23:47:16Z");
}

TEST_F(RoutesTest, BatchesRefuseMoreThanAThousandEntries) {
  Json entries = Json::array();
  for (int i = 0; i < 1001; ++i) entries.push_back(Json{{"path", "/x" + std::to_string(i)}});
  const HttpReply tooMany = client_->rpc("files/delete_batch", Json{{"entries", entries}}.dump());
  EXPECT_EQ(tooMany.status, 400);
  EXPECT_NE(tooMany.body.find("more than 1000"), std::string::npos);
  entries.erase(entries.begin());
  EXPECT_EQ(client_->rpc("files/delete_batch", Json{{"entries", entries}}.dump()).status, 200);
}

TEST_F(RoutesTest, AsyncJobsCommitOnlyWhenComplete) {
  const std::string sid = json(
      client_->upload("files/upload_session/start", R"({"close": true})", "data"))["session_id"];
  const Json finish = {
      {"entries",
       {{{"cursor", {{"session_id", sid}, {"offset", 4}}}, {"commit", {{"path", "/j.txt"}}}}}}};
  const std::string job =
      json(client_->rpc("files/upload_session/finish_batch", finish.dump()))["async_job_id"];
  EXPECT_FALSE(emulator_->lookup("/j.txt"));
  // The account's commit lock is held: a delete batch now is write contention.
  const HttpReply busy = client_->rpc("files/delete_batch", R"({"entries": []})");
  EXPECT_EQ(busy.status, 429);
  EXPECT_EQ(busy.header("retry-after"), "1");
  const std::string poll = Json{{"async_job_id", job}}.dump();
  EXPECT_EQ(json(client_->rpc("files/upload_session/finish_batch/check", poll))[".tag"],
            "in_progress");
  const Json done = json(client_->rpc("files/upload_session/finish_batch/check", poll));
  EXPECT_EQ(done[".tag"], "complete");
  EXPECT_EQ(done["entries"][0][".tag"], "success");
  EXPECT_EQ(emulator_->readFile("/j.txt"), "data");
  // Polling a finished job answers the same result again.
  EXPECT_EQ(json(client_->rpc("files/upload_session/finish_batch/check", poll)), done);
  EXPECT_EQ(client_->rpc("files/delete_batch", R"({"entries": []})").status, 200);
  // A job id of the other kind is unknown.
  EXPECT_EQ(json(client_->rpc("files/delete_batch/check", poll))["error"][".tag"],
            "invalid_async_job_id");
}

TEST_F(RoutesTest, EntryFaultsFailSingleEntriesOfACompleteBatch) {
  emulator_->putFile("/a", "1");
  emulator_->putFile("/b", "2");
  emulator_->setBatchCheckPolls(0);
  emulator_->addFault(*parseFaultRule("files/delete_batch/entry:429w#1"));
  const std::string job = json(client_->rpc(
      "files/delete_batch", R"({"entries": [{"path": "/a"}, {"path": "/b"}]})"))["async_job_id"];
  const std::string poll = Json{{"async_job_id", job}}.dump();
  const Json done = json(client_->rpc("files/delete_batch/check", poll));
  ASSERT_EQ(done[".tag"], "complete");
  EXPECT_EQ(done["entries"][0]["failure"][".tag"], "too_many_write_operations");
  EXPECT_EQ(done["entries"][1][".tag"], "success");
  EXPECT_TRUE(emulator_->lookup("/a"));
  EXPECT_FALSE(emulator_->lookup("/b"));

  emulator_->addFault(*parseFaultRule("files/upload_session/finish_batch/entry:429w#1"));
  const std::string sid =
      json(client_->upload("files/upload_session/start", R"({"close": true})", "x"))["session_id"];
  const std::string finish =
      Json{{"entries",
            {{{"cursor", {{"session_id", sid}, {"offset", 1}}}, {"commit", {{"path", "/c"}}}}}}}
          .dump();
  EXPECT_EQ(json(client_->rpc("files/upload_session/finish_batch_v2",
                              finish))["entries"][0]["failure"][".tag"],
            "too_many_write_operations");
  // The session is still there: the retry commits it.
  EXPECT_EQ(
      json(client_->rpc("files/upload_session/finish_batch_v2", finish))["entries"][0][".tag"],
      "success");
}

// Reads every entry name and size of a ZIP with libarchive.
std::vector<std::pair<std::string, int64_t>> zipEntries(const std::string& bytes) {
  std::vector<std::pair<std::string, int64_t>> entries;
  archive* reader = archive_read_new();
  archive_read_support_format_zip(reader);
  if (archive_read_open_memory(reader, bytes.data(), bytes.size()) == ARCHIVE_OK) {
    archive_entry* entry = nullptr;
    while (archive_read_next_header(reader, &entry) == ARCHIVE_OK) {
      entries.emplace_back(archive_entry_pathname(entry), archive_entry_size(entry));
    }
  }
  archive_read_free(reader);
  return entries;
}

TEST_F(RoutesTest, DownloadZipIsRootedAtTheFolderName) {
  emulator_->putFile("/Top/Sub/b.txt", "bb");
  emulator_->putFile("/Top/a.txt", "a");
  emulator_->putFile("/Elsewhere.txt", "no");
  const HttpReply reply = client_->download("files/download_zip", R"({"path": "/top"})");
  ASSERT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(reply.contentType(), "application/zip");
  EXPECT_EQ(Json::parse(reply.header("dropbox-api-result"))["metadata"]["path_display"], "/Top");
  using Entry = std::pair<std::string, int64_t>;
  EXPECT_EQ(
      zipEntries(reply.body),
      (std::vector<Entry>{{"Top/", 0}, {"Top/a.txt", 1}, {"Top/Sub/", 0}, {"Top/Sub/b.txt", 2}}));
  EXPECT_EQ(emulator_->requestCount("files/download_zip"), 1u);
  EXPECT_EQ(emulator_->requestCount("files/download"), 0u);
}

class ZipLimitsTest : public RoutesTest {
 protected:
  ZipLimitsTest()
      : RoutesTest(EmulatorOptions{.token = "T", .zipMaxEntries = 3, .zipMaxBytes = 10}) {}
};

TEST_F(ZipLimitsTest, RefusesTooManyEntriesAndTooManyBytes) {
  emulator_->putFile("/Two/a", "12345");
  emulator_->putFile("/Two/b", "12345");
  EXPECT_EQ(client_->download("files/download_zip", R"({"path": "/Two"})").status, 200);
  emulator_->putFile("/Two/c", "");  // four entries with the top folder
  EXPECT_EQ(json(client_->download("files/download_zip", R"({"path": "/Two"})"))["error"][".tag"],
            "too_many_files");
  emulator_->setDownloadZipLimits(4, 10);
  EXPECT_EQ(client_->download("files/download_zip", R"({"path": "/Two"})").status, 200);
  emulator_->putFile("/Big/a", "12345678901");
  EXPECT_EQ(json(client_->download("files/download_zip", R"({"path": "/Big"})"))["error"][".tag"],
            "too_large");
  EXPECT_EQ(json(client_->download("files/download_zip",
                                   R"({"path": "/Big/a"})"))["error"]["path"][".tag"],
            "not_folder");
}

}  // namespace
}  // namespace wdc::emu
