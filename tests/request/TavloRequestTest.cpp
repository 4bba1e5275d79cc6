#include <gtest/gtest.h>

#include "archive/TavloKeyedArchiver.h"
#include "request/TavloClearCache.h"
#include "request/TavloRequest.h"
#include "support/TavloArchiveTestKit.h"

namespace {

std::shared_ptr<TavloRequest> makeRequest(int32_t type = TavloRequestTypeAudience,
                                          int64_t mode = TavloSendingModeLive, TavloString serial = "123") {
  auto parameters = std::make_shared<const TavloParameters>(
      TavloParameters{{"a b", "x\"y"}, {"k", ""}, {"ok", "v1.0/x:y-z"}, {"t\tab", "1\n(ERROR) : 2\x7F"}});
  return TavloRequest::TavloRequestWithParameters(parameters, type, mode, serial,
                                                  std::make_shared<TavloTaggerID>(serial, 0, type == 1), 1000.5);
}

std::shared_ptr<TavloAuth> makeAuth(TavloString serial = "123", TavloString base = "https://live.example/m/web/") {
  auto access = TavloAccess::TavloAccessWithSerial(serial, TavloAccessModeRestricted, base);
  access->hitSuccessfullySent();
  return TavloAuth::TavloAuthWithSession(TavloSession::TavloSessionWithSerial(serial, "77"), access, false);
}

std::string archived(const TavloRequest& request) { return TavloKeyedArchiver::archivedDataWithRootObject(request); }

// The agent finds a request in its queue by identity and a marker by kind; a retried
// request is a copy that must keep every field (its time stamp first) and share its access.
TEST(TavloRequest, CopiesKeepEveryFieldAndOnlyMarkersEqualOneAnother) {
  const auto a = makeRequest();
  a->setAuth(makeAuth());
  a->setLastFail(2000.0);
  a->setNumberOfFails(3);
  a->setStatus(TavloRequestStatusFailed);
  a->setShouldRenewSessionAfter(true);
  const auto copied = a->copy();
  EXPECT_TRUE(archived(*a) == archived(*copied));
  EXPECT_FALSE(a->isEqual(*copied)) << "equal contents are still two hits";
  EXPECT_NE(a->auth(), copied->auth());
  EXPECT_EQ(a->auth()->currentAccess(), copied->auth()->currentAccess());

  const auto marker = TavloClearCache::make();
  EXPECT_TRUE(marker->isEqual(*TavloClearCache::make()));
  EXPECT_FALSE(marker->isEqual(*a));
  EXPECT_FALSE(a->isEqual(*marker));
}

// Descriptions are log lines: the host by sending mode, and nothing a serial, a host or a
// value holds may start a line of its own.
TEST(TavloRequest, DescriptionNamesTheHostBySendingModeOnOneLine) {
  const TavloEndpoints endpoints = TavloEndpoints::allAt("https://aud.example");
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
    const auto request = makeRequest(c.type, c.mode, c.serial);
    request->setAuth(makeAuth(c.serial, c.base));
    EXPECT_EQ(c.expected, request->description(endpoints)) << "type " << c.type << " mode " << c.mode;
  }
  EXPECT_NE(std::string::npos, makeRequest()->description(endpoints).find("hote (null)")) << "no authorisation yet";

}

// The queue file's keys are its format: a renamed key loses the field of every hit queued
// by the previous version.
TEST(TavloRequestArchive, EveryFieldSurvivesAFileUnderItsKeysButTheRenewalFlag) {
  const auto request = makeRequest(TavloRequestTypeStreaming, TavloSendingModeDisconnected);
  request->setAuth(makeAuth());
  request->setLastFail(1500.75);
  request->setNumberOfFails(4);
  request->setStatus(TavloRequestStatusFailed);
  request->setShouldRenewSessionAfter(true);

  const std::string data = archived(*request);
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
