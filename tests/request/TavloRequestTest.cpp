// A request as the collector and the log see it, and as the queue file keeps it.
#include <gtest/gtest.h>

#include "archive/TavloKeyedArchiver.h"
#include "request/TavloClearCache.h"
#include "request/TavloRequest.h"
#include "support/TavloArchiveTestKit.h"

namespace {

const TavloEndpoints kEndpoints = TavloEndpoints::allAt("https://aud.example");

std::shared_ptr<TavloRequest> makeRequest(TavloParameters parameters, int32_t type, int64_t mode,
                                          TavloDate created = 1000.9, TavloString serial = "123",
                                          TavloString base = "https://live.example/m/web/") {
  auto id = std::make_shared<TavloTaggerID>(serial, 0, type == 1);
  auto request = TavloRequest::TavloRequestWithParameters(
      std::make_shared<const TavloParameters>(std::move(parameters)), type, mode, serial, id, created);
  auto access = TavloAccess::TavloAccessWithSerial(serial, TavloAccessModeFull, base);
  request->setAuth(TavloAuth::TavloAuthWithSession(TavloSession::TavloSessionWithSerial(serial, "987"), access, false));
  return request;
}

std::string archived(const TavloRequest& request) { return TavloKeyedArchiver::archivedDataWithRootObject(request); }

// The pieces sort without regard to case, escaped; every byte but the unreserved ones is
// escaped (the text fuzz target sweeps the rest). The network stored with the hit (here a
// stale one) is never sent beside the fresh one, which replaces it for the queue file.
TEST(TavloRequestURL, WholeURLsBySendingModeTypeAndNetwork) {
  struct Case {
    const char* name;
    int32_t type;
    int64_t mode;
    int32_t network;
    double delta;
    const char* url;
  };
  const Case cases[] = {
      {"live audience on wifi", 0, TavloSendingModeLive, 2, 0,
       "https://live.example/m/web/123?Beta=3&c=home&k%20y=a~b%2F%C3%A9%25&m_ntwk=Wifi&Zeta=1"},
      {"timestamped streaming, not on wifi", 1, TavloSendingModeTimestamped, 1, 0.5,
       "https://aud.example/m/web/123?Beta=3&c=home&cmsVI=987&k%20y=a~b%2F%C3%A9%25&m_ntwk=GSM&ts=1001&tt=c&Zeta=1"},
      {"disconnected streaming, clock behind", 1, TavloSendingModeDisconnected, 2, -0.95,
       "https://aud.example/m/web/123?Beta=3&c=home&cmsVI=987&k%20y=a~b%2F%C3%A9%25&m_ntwk=Wifi&ts=999&tt=d&Zeta=1"},
      {"unknown mode: host like live, tt like disconnected", 0, 7, 0, 0,
       "https://live.example/m/web/123?Beta=3&c=home&k%20y=a~b%2F%C3%A9%25&m_ntwk=GSM&ts=1000&tt=d&Zeta=1"},
  };
  for (const Case& c : cases) {
    auto request = makeRequest(
        {{"Zeta", "1"}, {"c", "home"}, {"Beta", "3"}, {"k y", "a~b/\xC3\xA9%"}, {"m_ntwk", "stale"}}, c.type, c.mode);
    EXPECT_EQ(c.url, request->url(c.network, c.delta, kEndpoints)) << c.name;
    EXPECT_EQ(c.network == 2 ? "Wifi" : "GSM", request->parameters()->at("m_ntwk")) << c.name;
  }
}

TEST(TavloRequestURL, ACollectionAddressWithAQueryOfItsOwnKeepsTheURLItAlwaysGave) {
  TavloEndpoints endpoints = kEndpoints;
  endpoints.audienceCollection = "https://aud.example/x?z=1&A=2";
  auto request = makeRequest({{"c", "home"}}, 1, TavloSendingModeTimestamped);
  EXPECT_EQ("https://aud.example/x?A=2/m/web/123&z=1", request->url(2, 0, endpoints));
}

// What a tampered queue file could bring back: no authorisation (no URL, no host in the
// log), a host that would swallow the query, a serial that would leave the collection
// path, a creation date no time stamp can hold.
TEST(TavloRequestURL, NoURLWithoutAUsableBaseAndNoOverflowingTimeStamp) {
  auto bare = makeRequest({}, 0, TavloSendingModeLive);
  bare->setAuth(nullptr);
  EXPECT_FALSE(bare->url(2, 0, kEndpoints));
  EXPECT_NE(std::string::npos, bare->description(kEndpoints).find(" - hote (null) - "));
  EXPECT_FALSE(makeRequest({}, 0, TavloSendingModeLive, 0, "1", "https://h/m/web/?x=")->url(2, 0, kEndpoints));
  EXPECT_FALSE(makeRequest({}, 0, TavloSendingModeLive, 0, "1", "ftp://x/")->url(2, 0, kEndpoints));
  EXPECT_FALSE(makeRequest({}, 1, TavloSendingModeTimestamped, 0, "../admin")->url(2, 0, kEndpoints));
  EXPECT_EQ("https://aud.example/m/web/123?m_ntwk=GSM&ts=9223372036854775807&tt=c",
            makeRequest({}, 0, TavloSendingModeTimestamped, 1e300)->url(0, 0, kEndpoints));
}

TEST(TavloRequestURL, AStopRanksOneAfterTheLeadingIntegerOfTheRank) {
  const std::pair<TavloString, const char*> cases[] = {
      {"7", "8"}, {std::nullopt, "1"}, {"abc", "1"}, {"-3", "-2"}, {" 12x", "13"},
      {"9223372036854775807", "9223372036854775807"}};
  for (const auto& [rank, stopped] : cases) {
    TavloParameters parameters{{"x", "y"}};
    if (rank) parameters["cmsRK"] = *rank;
    auto request = makeRequest(parameters, 1, TavloSendingModeLive);
    const auto before = request->parameters();
    request->transformToStop();
    EXPECT_EQ((TavloParameters{{"x", "y"}, {"cmsPS", "12"}, {"cmsRK", stopped}}), *request->parameters())
        << rank.value_or("(absent)");
    EXPECT_NE(before, request->parameters()) << "a sender may still hold the old dictionary: it is never changed";
  }
}

// Descriptions are log lines: the host by sending mode, and nothing a serial, a host or a
// value holds may start a line of its own.
TEST(TavloRequest, DescriptionNamesTheHostBySendingModeOnOneLine) {
  const std::string forged = "\n(ERROR) : forged\r";
  struct Case {
    int32_t type;
    int64_t mode;
    std::string serial, base, expected;
  };
  // Keys and values are quoted unless plain words, and their controls escaped.
  const std::string parameters =
      " - parameters {\n    \"a b\" = \"x\\\"y\";\n    k = \"\";\n    ok = v1.0/x:y-z;\n"
      "    \"t\\tab\" = \"1\\n(ERROR) : 2\\u007F\";\n}\"";
  const Case cases[] = {
      {0, TavloSendingModeLive, "123", "https://live.example/m/web/",
       "\"serial 123 - request type audience - hote https://live.example/m/web/123" + parameters},
      {1, TavloSendingModeDisconnected, "123", "https://live.example/m/web/",
       "\"serial 123 - request type streaming - hote https://aud.example/m/web/" + parameters},
      {5, 9, "S" + forged, "https://live.example/" + forged,
       "\"serial S\\n(ERROR) : forged\\r - request type streaming - hote https://live.example/\\n(ERROR) : forged\\rS"
       "\\n(ERROR) : forged\\r" + parameters},
  };
  for (const Case& c : cases) {
    const auto request =
        makeRequest({{"a b", "x\"y"}, {"k", ""}, {"ok", "v1.0/x:y-z"}, {"t\tab", "1\n(ERROR) : 2\x7F"}}, c.type, c.mode,
                    0, c.serial, c.base);
    EXPECT_EQ(c.expected, request->description(kEndpoints)) << "type " << c.type << " mode " << c.mode;
  }
}

// A retried request is a copy that must keep every field (its time stamp first) and share
// its access; the agent finds a request in its queue by identity and a marker by kind.
// The queue file's keys are its format: a renamed key loses the field of every hit queued
// by the previous version.
TEST(TavloRequest, CopiesAndFilesKeepEveryFieldUnderItsKeysButTheRenewalFlag) {
  const auto request = makeRequest({{"c", "home"}}, TavloRequestTypeStreaming, TavloSendingModeDisconnected);
  auto access = TavloAccess::TavloAccessWithSerial("123", TavloAccessModeRestricted, "https://live.example/m/web/");
  access->hitSuccessfullySent();
  request->setAuth(TavloAuth::TavloAuthWithSession(TavloSession::TavloSessionWithSerial("123", "77"), access, false));
  request->setLastFail(1500.75);
  request->setNumberOfFails(4);
  request->setStatus(TavloRequestStatusFailed);
  request->setShouldRenewSessionAfter(true);
  const std::string data = archived(*request);

  const auto copied = request->copy();
  EXPECT_TRUE(archived(*copied) == data);
  EXPECT_FALSE(request->isEqual(*copied)) << "equal contents are still two hits";
  EXPECT_NE(request->auth(), copied->auth());
  EXPECT_EQ(request->auth()->currentAccess(), copied->auth()->currentAccess());
  const auto marker = TavloClearCache::make();
  EXPECT_TRUE(marker->isEqual(*TavloClearCache::make()));
  EXPECT_FALSE(marker->isEqual(*request) || request->isEqual(*marker));

  const auto decoded = TavloRoundTrip<TavloRequest>(*request);
  ASSERT_TRUE(decoded);
  EXPECT_FALSE(decoded->shouldRenewSessionAfter()) << "written under one key, read under another";
  request->setShouldRenewSessionAfter(false);
  EXPECT_TRUE(archived(*decoded) == archived(*request)) << "every other field of every record read back";
  const std::pair<const char*, const char*> keys[] = {
      {"TavloRequest",
       "TavloRequest__shouldRenewSession,TavloRequest__taggerID,TavloRequest_auth,TavloRequest_creationDate,"
       "TavloRequest_lastFail,TavloRequest_numberOfFails,TavloRequest_parameters,TavloRequest_requestType,"
       "TavloRequest_sendingMode,TavloRequest_serial,TavloRequest_status"},
      {"TavloTaggerID", "TavloTaggerID_isStreamTagger,TavloTaggerID_partialID,TavloTaggerID_serial"},
      {"TavloAuth", "TavloAuth_currentAccess,TavloAuth_currentSession,TavloAuth_defaultValues"},
      {"TavloSession", "TavloSesion_cmsVI,TavloSesion_serial"},
      {"TavloAccess",
       "TavloAccess_accessMode,TavloAccess_baseURL,TavloAccess_firstHitSuccessfullySent,TavloAccess_host,"
       "TavloAccess_serial"},
  };
  for (const auto& [className, expected] : keys) EXPECT_EQ(expected, TavloArchivedKeysOfClass(data, className));
}

}  // namespace
