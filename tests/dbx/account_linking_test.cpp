// Linking through the code flow with PKCE, and the longpoll route, against the emulator.
#include <gtest/gtest.h>

#include <thread>

#include "client_fixture.h"
#include "dbx/oauth_code_flow.h"
#include "dbx/transport.h"
#include "platform/semaphore.h"

namespace wdc::dbx::testing {
namespace {

class AccountLinkingTest : public DbxClientTest {
 protected:
  AccountLinkingTest() : DbxClientTest({.tls = true, .token = "T", .appKey = "key"}) {}

  // What a person does in the browser: open the authorize address and read the code off the page.
  HttpResponse openAuthorizePage(const std::string& url) {
    Transport transport(config());
    CountingSemaphore done(0);
    HttpResponse page;
    HttpRequest request;
    request.url = url;
    request.maxResponseBytes = 4096;
    transport.submit(std::move(request), [&](HttpResponse answer) {
      page = std::move(answer);
      done.signal();
    });
    done.wait();
    return page;
  }
};

TEST(PkceTest, ChallengeIsTheUnpaddedBase64UrlSha256OfTheVerifier) {
  // The worked example of RFC 7636, appendix B.
  EXPECT_EQ(pkceChallengeFor("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
  const DBPkcePair a = makePkcePair();
  const DBPkcePair b = makePkcePair();
  EXPECT_EQ(a.verifier.size(), 64u);
  EXPECT_EQ(a.verifier.find_first_not_of(
                "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~"),
            std::string::npos);
  EXPECT_NE(a.verifier, b.verifier);
  EXPECT_EQ(a.challenge, pkceChallengeFor(a.verifier));
}

TEST_F(AccountLinkingTest, ACodeIsExchangedOnceAndOnlyWithItsVerifier) {
  const DBPkcePair pkce = makePkcePair();
  HttpResponse page =
      openAuthorizePage(authorizeUrl(emulator_.baseUrl(), "key", pkce.challenge));
  ASSERT_EQ(page.status, 200);
  const std::string code = page.body;

  std::optional<Error> error;
  EXPECT_FALSE(exchangeAuthorizationCode(config(), "key", code, makePkcePair().verifier, &error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->localizedDescription().find("invalid code verifier"), std::string::npos);

  // A refused attempt spends the code, as a one-time code should.
  error.reset();
  EXPECT_FALSE(exchangeAuthorizationCode(config(), "key", code, pkce.verifier, &error));

  const DBPkcePair second = makePkcePair();
  page = openAuthorizePage(authorizeUrl(emulator_.baseUrl(), "key", second.challenge));
  auto token = exchangeAuthorizationCode(config(), "key", page.body, second.verifier, &error);
  ASSERT_TRUE(token) << error->description();
  EXPECT_TRUE(token->refreshToken);
  EXPECT_TRUE(token->expiresAt);

  // The new token works for the account routes.
  auto linked = makeClient(*token);
  auto account = await(linked->usersRoutes().getCurrentAccount());
  EXPECT_TRUE(account.result);
  linked->close();
}

TEST_F(AccountLinkingTest, TheAuthorizePageRefusesAnotherAppOrAPlainChallenge) {
  const DBPkcePair pkce = makePkcePair();
  EXPECT_EQ(openAuthorizePage(authorizeUrl(emulator_.baseUrl(), "other", pkce.challenge)).status,
            400);
  std::string plain = authorizeUrl(emulator_.baseUrl(), "key", pkce.challenge);
  plain.replace(plain.find("S256"), 4, "plain");
  EXPECT_EQ(openAuthorizePage(plain).status, 400);
}

TEST_F(AccountLinkingTest, LongpollAnswersWhenTheListedFolderChanges) {
  emulator_.putFile("/tod/a.tod", "1");
  DBFILESListFolderArg everything;
  everything.recursive = true;
  auto listing = await(files().listFolder(everything));
  ASSERT_TRUE(listing.result);
  const std::string cursor = listing.result->cursor;

  std::thread writer([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    emulator_.putFile("/tod/b.tod", "2");
  });
  auto poll = await(files().listFolderLongpoll(cursor, 30));
  writer.join();
  ASSERT_TRUE(poll.result) << (poll.error ? poll.error->description() : "route error");
  EXPECT_TRUE(poll.result->changes);
  EXPECT_EQ(emulator_.requestCount("files/list_folder/longpoll"), 1u);

  auto unknown = await(files().listFolderLongpoll("no-such-cursor", 30));
  ASSERT_TRUE(unknown.routeError);
  EXPECT_EQ(unknown.routeError->tagName(), "reset");
}

}  // namespace
}  // namespace wdc::dbx::testing
