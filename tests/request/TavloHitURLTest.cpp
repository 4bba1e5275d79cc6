#include <gtest/gtest.h>

#include "request/TavloRequest.h"

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

// The pieces sort without regard to case, escaped; every byte but the unreserved ones is
// escaped (the text fuzz target sweeps the rest).
TEST(TavloHitURL, WholeURLsBySendingModeTypeAndNetwork) {
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
      {"live audience not reachable", 0, TavloSendingModeLive, 0, 0,
       "https://live.example/m/web/123?Beta=3&c=home&k%20y=a~b%2F%C3%A9%25&m_ntwk=GSM&Zeta=1"},
      {"timestamped streaming", 1, TavloSendingModeTimestamped, 1, 0.5,
       "https://aud.example/m/web/123?Beta=3&c=home&cmsVI=987&k%20y=a~b%2F%C3%A9%25&m_ntwk=GSM&ts=1001&tt=c&Zeta=1"},
      {"disconnected streaming, clock behind", 1, TavloSendingModeDisconnected, 2, -0.95,
       "https://aud.example/m/web/123?Beta=3&c=home&cmsVI=987&k%20y=a~b%2F%C3%A9%25&m_ntwk=Wifi&ts=999&tt=d&Zeta=1"},
      {"unknown mode: host like live, tt like disconnected", 0, 7, 2, 0,
       "https://live.example/m/web/123?Beta=3&c=home&k%20y=a~b%2F%C3%A9%25&m_ntwk=Wifi&ts=1000&tt=d&Zeta=1"},
  };
  for (const Case& c : cases) {
    auto request = makeRequest({{"Zeta", "1"}, {"c", "home"}, {"Beta", "3"}, {"k y", "a~b/\xC3\xA9%"}},
                               c.type, c.mode);
    EXPECT_EQ(c.url, request->url(c.network, c.delta, kEndpoints)) << c.name;
  }
}

TEST(TavloHitURL, SendsOnlyTheFreshNetworkAndKeepsItForTheFile) {
  auto request = makeRequest({{"a", "1"}}, 0, TavloSendingModeLive);
  request->url(2, 0, kEndpoints);
  EXPECT_EQ("Wifi", request->parameters()->at("m_ntwk"));
  EXPECT_EQ("https://live.example/m/web/123?a=1&m_ntwk=GSM", request->url(0, 0, kEndpoints))
      << "the stale stored network must not be sent beside the fresh one";
  EXPECT_EQ("GSM", request->parameters()->at("m_ntwk"));
}

TEST(TavloHitURL, TimeStampIsCreationPlusDeltaTruncatedTowardZero) {
  const std::pair<double, const char*> cases[] = {{-0.5, "0"}, {-1.5, "-1"}, {1e300, "9223372036854775807"}};
  for (const auto& [created, ts] : cases) {
    const auto url = makeRequest({}, 0, TavloSendingModeTimestamped, created)->url(0, 0, kEndpoints).value_or("");
    EXPECT_NE(std::string::npos, url.find(std::string("&ts=") + ts + "&")) << url;
  }
}

TEST(TavloHitURL, ACollectionAddressWithAQueryOfItsOwnKeepsTheURLItAlwaysGave) {
  TavloEndpoints endpoints = kEndpoints;
  endpoints.audienceCollection = "https://aud.example/x?z=1&A=2";
  auto request = makeRequest({{"c", "home"}}, 1, TavloSendingModeTimestamped);
  EXPECT_EQ("https://aud.example/x?A=2/m/web/123&z=1", request->url(2, 0, endpoints));
}

// What a tampered queue file could bring back: no authorisation, a host that would
// swallow the query, a serial that would leave the collection path.
TEST(TavloHitURL, NoURLWithoutAUsableBase) {
  auto bare = makeRequest({}, 0, TavloSendingModeLive);
  bare->setAuth(nullptr);
  EXPECT_FALSE(bare->url(2, 0, kEndpoints));
  EXPECT_FALSE(makeRequest({}, 0, TavloSendingModeLive, 0, "1", "https://h/m/web/?x=")->url(2, 0, kEndpoints));
  EXPECT_FALSE(makeRequest({}, 0, TavloSendingModeLive, 0, "1", "ftp://x/")->url(2, 0, kEndpoints));
  EXPECT_FALSE(makeRequest({}, 1, TavloSendingModeTimestamped, 0, "../admin")->url(2, 0, kEndpoints));
}

TEST(TavloHitURL, AStopRanksOneAfterTheLeadingIntegerOfTheRank) {
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

}  // namespace
