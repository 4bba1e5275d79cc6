#include <gtest/gtest.h>

#include <algorithm>

#include "support/TavloArchiveTestKit.h"
#include "request/TavloClearCache.h"
#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"
#include "request/TavloRequest.h"
#include "util/TavloStringHash.h"

namespace {

std::shared_ptr<TavloRequest> makeRequest(int32_t type = TavloRequestTypeAudience,
                                          int64_t mode = TavloSendingModeLive) {
  auto parameters = std::make_shared<const TavloParameters>(TavloParameters{{"c", "home"}, {"crmid", "42"}});
  return TavloRequest::TavloRequestWithParameters(parameters, type, mode, "123",
                                                  std::make_shared<TavloTaggerID>("123", 0, type == 1), 1000.5);
}

std::shared_ptr<TavloAuth> makeAuth() {
  return TavloAuth::TavloAuthWithSession(TavloSession::TavloSessionWithSerial("123", "77"),
                                         TavloAccess::TavloAccessWithSerial("123", 0, "https://live.example/m/web/"),
                                         false);
}

TEST(TavloRequest, StartsNewWithTheArgumentsStoredAsGiven) {
  auto parameters = std::make_shared<const TavloParameters>(TavloParameters{{"a", "b"}});
  auto id = std::make_shared<TavloTaggerID>("s", 1, true);
  const auto request = TavloRequest::TavloRequestWithParameters(parameters, 1, 2, "s", id, 1234.25);
  EXPECT_EQ(parameters, request->parameters()) << "the dictionary is stored, not copied";
  EXPECT_EQ(id, request->taggerID());
  EXPECT_EQ(1, request->requestType());
  EXPECT_EQ(2, request->sendingMode());
  EXPECT_EQ(1234.25, request->creationDate());
  EXPECT_EQ(TavloRequestStatusNew, request->status());
  EXPECT_EQ(0, request->numberOfFails());
  EXPECT_FALSE(request->lastFail());
  EXPECT_FALSE(request->auth());
  EXPECT_FALSE(request->shouldRenewSessionAfter());
}

TEST(TavloRequest, EqualityIsIdentityAndCopiesKeepTheCreationDate) {
  const auto a = makeRequest();
  const auto b = makeRequest();
  EXPECT_TRUE(a->isEqual(*a));
  EXPECT_FALSE(a->isEqual(*b)) << "equal contents are still two hits";
  EXPECT_EQ(a->hash(), b->hash()) << "the hash is computed from contents";

  a->setAuth(makeAuth());
  a->setLastFail(2000.0);
  a->setNumberOfFails(3);
  a->setStatus(TavloRequestStatusFailed);
  a->setShouldRenewSessionAfter(true);
  const auto copied = a->copy();
  EXPECT_FALSE(a->isEqual(*copied));
  EXPECT_EQ(a->creationDate(), copied->creationDate());
  EXPECT_EQ(a->parameters(), copied->parameters());
  EXPECT_EQ(2000.0, copied->lastFail());
  EXPECT_EQ(3, copied->numberOfFails());
  EXPECT_EQ(TavloRequestStatusFailed, copied->status());
  EXPECT_TRUE(copied->shouldRenewSessionAfter());
  ASSERT_TRUE(copied->auth());
  EXPECT_NE(a->auth(), copied->auth()) << "the authorisation is a copy";
  EXPECT_EQ(a->auth()->currentAccess(), copied->auth()->currentAccess()) << "sharing the access";
  EXPECT_EQ(a->hash(), copied->hash());
}

TEST(TavloRequest, HashFollowsThePolynomialAndFoldsTheFailCount) {
  const auto request = makeRequest(TavloRequestTypeAudience, TavloSendingModeDisconnected);
  request->setStatus(TavloRequestStatusFailed);
  request->setLastFail(5.0);
  const int64_t fails = 0x0000000500000003LL;
  request->setNumberOfFails(fails);
  const uint64_t folded = static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(3 ^ 5)));
  const uint64_t expected = 887503681ULL + 28629151ULL * TavloParametersHash(request->parameters().get()) +
                            923521ULL * TavloDateHash(5.0) + 29791ULL * TavloDateHash(1000.5) + 961ULL * folded +
                            31ULL * 2 + 3;
  EXPECT_EQ(expected, request->hash());

  request->setNumberOfFails(-1);  // both halves all ones: they cancel out
  const uint64_t withZeroFold = expected - 961ULL * folded;
  EXPECT_EQ(withZeroFold, request->hash());
}

TEST(TavloClearCache, AnyTwoMarkersAreEqualAndNoRequestIsAMarker) {
  const auto marker = TavloClearCache::make();
  const auto other = TavloClearCache::make();
  const auto request = makeRequest();
  EXPECT_TRUE(marker->isEqual(*other));
  EXPECT_FALSE(marker->isEqual(*request));
  EXPECT_FALSE(request->isEqual(*marker));
  EXPECT_EQ(TavloRequestTypeAudience, marker->requestType()) << "a marker's type reads 0";
  EXPECT_FALSE(marker->parameters());

  const std::vector<std::shared_ptr<TavloRequest>> queue = {request, other};
  const auto fresh = TavloClearCache::make();
  EXPECT_TRUE(std::any_of(queue.begin(), queue.end(), [&](const auto& r) { return fresh->isEqual(*r); }));
}

TEST(TavloRequest, DescriptionNamesTheHostBySendingMode) {
  const TavloEndpoints endpoints = TavloEndpoints::allAt("https://aud.example");
  struct Case {
    int32_t type;
    int64_t mode;
    const char* word;
    const char* host;
  };
  const Case cases[] = {
      {0, TavloSendingModeLive, "audience", "https://live.example/m/web/123"},
      {1, TavloSendingModeDisconnected, "streaming", "https://aud.example/m/web/"},
      {1, TavloSendingModeTimestamped, "streaming", "https://aud.example/m/web/"},
      {5, 9, "streaming", "https://live.example/m/web/123"},
  };
  for (const Case& c : cases) {
    const auto request = makeRequest(c.type, c.mode);
    request->setAuth(makeAuth());
    const std::string expected = std::string("\"serial 123 - request type ") + c.word + " - hote " + c.host +
                                 " - parameters {\n    c = home;\n    crmid = 42;\n}\"";
    EXPECT_EQ(expected, request->description(endpoints)) << "type " << c.type << " mode " << c.mode;
  }
  const auto bare = makeRequest();
  EXPECT_NE(std::string::npos, bare->description(endpoints).find("hote (null)")) << "no authorisation yet";
}

TEST(TavloParametersDescription, QuotesWhatIsNotAPlainWordAndEscapesControls) {
  const TavloParameters parameters{{"a b", "x\"y"}, {"k", ""}, {"ok", "v1.0/x:y-z"}, {"t\tab", "1\n(ERROR) : 2\x7F"}};
  EXPECT_EQ("{\n    \"a b\" = \"x\\\"y\";\n    k = \"\";\n    ok = v1.0/x:y-z;\n"
            "    \"t\\tab\" = \"1\\n(ERROR) : 2\\u007F\";\n}",
            TavloParametersDescription(&parameters));
  EXPECT_EQ("(null)", TavloParametersDescription(nullptr));
}

TEST(TavloRequest, DescriptionKeepsHostileSerialsAndHostsOnTheirLine) {
  const TavloEndpoints endpoints = TavloEndpoints::allAt("https://aud.example");
  const std::string forged = "\n(ERROR) : forged\r";
  for (const bool hostileSerial : {true, false}) {
    const std::string serial = hostileSerial ? "S" + forged : "123";
    const std::string base = hostileSerial ? "https://live.example/" : "https://live.example/" + forged;
    const auto request = TavloRequest::TavloRequestWithParameters(
        std::make_shared<const TavloParameters>(), 0, TavloSendingModeLive, serial,
        std::make_shared<TavloTaggerID>(serial, 0, false), 1);
    request->setAuth(TavloAuth::TavloAuthWithSession(nullptr, TavloAccess::TavloAccessWithSerial(serial, 0, base), false));
    const std::string text = request->description(endpoints);
    EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text << ": only the empty dictionary's own break";
    EXPECT_NE(std::string::npos, text.find("\\n(ERROR) : forged\\r")) << text;
  }
}

TEST(TavloRequestArchive, EveryFieldSurvivesAFileButTheRenewalFlag) {
  const auto request = makeRequest(TavloRequestTypeStreaming, TavloSendingModeDisconnected);
  request->setAuth(makeAuth());
  request->setLastFail(1500.75);
  request->setNumberOfFails(4);
  request->setStatus(TavloRequestStatusFailed);
  request->setShouldRenewSessionAfter(true);

  const auto decoded = TavloRoundTrip<TavloRequest>(*request);
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->isClearCacheMarker());
  EXPECT_EQ(*request->parameters(), *decoded->parameters());
  EXPECT_EQ(TavloRequestTypeStreaming, decoded->requestType());
  EXPECT_EQ(TavloSendingModeDisconnected, decoded->sendingMode());
  EXPECT_EQ(1500.75, decoded->lastFail());
  EXPECT_EQ(1000.5, decoded->creationDate());
  EXPECT_EQ("123", decoded->serial());
  EXPECT_EQ(4, decoded->numberOfFails());
  EXPECT_EQ(TavloRequestStatusFailed, decoded->status());
  EXPECT_FALSE(decoded->shouldRenewSessionAfter()) << "written under one key, read under another";
  ASSERT_TRUE(decoded->taggerID());
  EXPECT_TRUE(decoded->taggerID()->isEqual(*request->taggerID()));
  ASSERT_TRUE(decoded->auth());
  EXPECT_EQ("77", decoded->auth()->currentSession()->cmsVI());
  EXPECT_EQ("https://live.example/m/web/123", decoded->auth()->currentAccess()->host());
  EXPECT_EQ(request->hash(), decoded->hash());

  const std::string data = TavloKeyedArchiver::archivedDataWithRootObject(*request);
  EXPECT_EQ(
      "TavloRequest__shouldRenewSession,TavloRequest__taggerID,TavloRequest_auth,TavloRequest_creationDate,"
      "TavloRequest_lastFail,TavloRequest_numberOfFails,TavloRequest_parameters,TavloRequest_requestType,"
      "TavloRequest_sendingMode,TavloRequest_serial,TavloRequest_status",
      TavloArchivedKeysOfClass(data, "TavloRequest"));
}

TEST(TavloRequestArchive, AQueueKeepsItsOrderItsMarkerAndSharedRecords) {
  const auto auth = makeAuth();
  const auto first = makeRequest(TavloRequestTypeStreaming);
  const auto second = makeRequest(TavloRequestTypeAudience);
  first->setAuth(auth);
  second->setAuth(auth->copy());
  const std::vector<std::shared_ptr<TavloCodable>> queue = {first, second, TavloClearCache::make()};

  const std::string data = TavloKeyedArchiver::archivedDataWithRootArray(queue);
  const auto decoded = TavloKeyedUnarchiver::unarchivedArrayWithData(data, TavloRecordClasses());
  ASSERT_TRUE(decoded);
  ASSERT_EQ(3u, decoded->size());
  const auto r0 = std::dynamic_pointer_cast<TavloRequest>((*decoded)[0]);
  const auto r1 = std::dynamic_pointer_cast<TavloRequest>((*decoded)[1]);
  const auto marker = std::dynamic_pointer_cast<TavloRequest>((*decoded)[2]);
  ASSERT_TRUE(r0 && r1 && marker);
  EXPECT_EQ(TavloRequestTypeStreaming, r0->requestType());
  EXPECT_EQ(TavloRequestTypeAudience, r1->requestType());
  EXPECT_TRUE(marker->isClearCacheMarker());
  EXPECT_FALSE(marker->parameters());
  EXPECT_EQ(r0->auth()->currentAccess(), r1->auth()->currentAccess())
      << "an access shared in memory is still shared after reading the file";
}

}  // namespace
