#include <gtest/gtest.h>

#include "request/TavloRequest.h"

namespace {

const TavloEndpoints kEndpoints = TavloEndpoints::allAt("https://aud.example");

std::shared_ptr<TavloRequest> makeRequest(TavloParameters parameters, int32_t type, int64_t mode,
                                          TavloDate created = 1000.9) {
  auto request = TavloRequest::TavloRequestWithParameters(std::make_shared<const TavloParameters>(std::move(parameters)),
                                                          type, mode, "123",
                                                          std::make_shared<TavloTaggerID>("123", 0, type == 1), created);
  request->setAuth(TavloAuth::TavloAuthWithSession(
      TavloSession::TavloSessionWithSerial("123", "987"),
      TavloAccess::TavloAccessWithSerial("123", TavloAccessModeFull, "https://live.example/m/web/"), false));
  return request;
}

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
       "https://live.example/m/web/123?c=home&crmid=42&m_ntwk=Wifi&Zeta=1"},
      {"live audience not reachable", 0, TavloSendingModeLive, 0, 0,
       "https://live.example/m/web/123?c=home&crmid=42&m_ntwk=GSM&Zeta=1"},
      {"timestamped streaming", 1, TavloSendingModeTimestamped, 1, 0.5,
       "https://aud.example/m/web/123?c=home&cmsVI=987&crmid=42&m_ntwk=GSM&ts=1001&tt=c&Zeta=1"},
      {"disconnected streaming, clock behind", 1, TavloSendingModeDisconnected, 2, -0.95,
       "https://aud.example/m/web/123?c=home&cmsVI=987&crmid=42&m_ntwk=Wifi&ts=999&tt=d&Zeta=1"},
      {"unknown mode: host like live, tt like disconnected", 0, 7, 2, 0,
       "https://live.example/m/web/123?c=home&crmid=42&m_ntwk=Wifi&ts=1000&tt=d&Zeta=1"},
  };
  for (const Case& c : cases) {
    auto request = makeRequest({{"c", "home"}, {"crmid", "42"}, {"Zeta", "1"}}, c.type, c.mode);
    EXPECT_EQ(c.url, request->url(c.network, c.delta, kEndpoints)) << c.name;
  }
}

TEST(TavloHitURL, StoresTheNetworkItUsedAndReportsOnlyTheFreshOne) {
  auto request = makeRequest({{"a", "1"}}, 0, TavloSendingModeLive);
  const TavloString first = request->url(2, 0, kEndpoints);
  EXPECT_EQ("Wifi", request->parameters()->at("m_ntwk"));
  EXPECT_EQ(first, request->url(2, 0, kEndpoints)) << "same network, same URL";
  EXPECT_EQ("https://live.example/m/web/123?a=1&m_ntwk=GSM", request->url(0, 0, kEndpoints))
      << "the stale stored network must not be sent beside the fresh one";
  EXPECT_EQ("GSM", request->parameters()->at("m_ntwk"));
}

TEST(TavloHitURL, EscapesEveryByteButTheUnreservedOnes) {
  struct Case {
    std::string raw;
    const char* escaped;
  };
  const Case cases[] = {
      {"a b/c", "a%20b%2Fc"},
      {"\xC3\xA9", "%C3%A9"},
      {"~x-y_z.1", "~x-y_z.1"},
      {"100%", "100%25"},
      {"!*'();:@&=+$,/?#[]", "%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%23%5B%5D"},
      {"\"<>\\^`{|}", "%22%3C%3E%5C%5E%60%7B%7C%7D"},
      {std::string("\t\n\x01\x7F", 4), "%09%0A%01%7F"},
      {std::string("nul\0byte", 8), "nul%00byte"},
      {"\xFF\xC3", "%FF%C3"},  // malformed UTF-8 is escaped byte by byte
      {"\xEF\xBF\xBD", "%EF%BF%BD"},
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(c.escaped, TavloRequest::urlEncode(c.raw)) << c.escaped;

  auto request = makeRequest({{"k y", "a b"}}, 0, TavloSendingModeLive);
  EXPECT_EQ("https://live.example/m/web/123?k%20y=a%20b&m_ntwk=Wifi", request->url(2, 0, kEndpoints));
}

TEST(TavloHitURL, PiecesSortWithoutRegardToCase) {
  auto request = makeRequest({{"Zeta", "1"}, {"alpha", "2"}, {"Beta", "3"}, {"b", "4"}}, 0, TavloSendingModeLive);
  EXPECT_EQ("https://live.example/m/web/123?alpha=2&b=4&Beta=3&m_ntwk=GSM&Zeta=1", request->url(1, 0, kEndpoints));
}

TEST(TavloHitURL, ACollectionAddressWithAQueryOfItsOwnKeepsTheURLItAlwaysGave) {
  TavloEndpoints endpoints = kEndpoints;
  endpoints.audienceCollection = "https://aud.example/x?z=1&A=2";
  auto request = makeRequest({{"c", "home"}}, 1, TavloSendingModeTimestamped);
  EXPECT_EQ("https://aud.example/x?A=2/m/web/123&z=1", request->url(2, 0, endpoints));
}

TEST(TavloHitURL, NoURLWithoutAUsableBase) {
  auto bare = TavloRequest::TavloRequestWithParameters(std::make_shared<const TavloParameters>(), 0, 1, "1",
                                                       std::make_shared<TavloTaggerID>("1", 0, false), 0);
  EXPECT_FALSE(bare->url(2, 0, kEndpoints)) << "no authorisation attached";

  // What a tampered queue file could bring back: hosts that would swallow the query,
  // serials that would leave the collection path.
  for (const char* base : {"not a url/", "ftp://x/", "https://bad host/", "", "https://h/m/web/?x=", "https://h/#f"}) {
    auto request = makeRequest({}, 0, TavloSendingModeLive);
    request->setAuth(TavloAuth::TavloAuthWithSession(nullptr, TavloAccess::TavloAccessWithSerial("1", 0, base), false));
    EXPECT_FALSE(request->url(2, 0, kEndpoints)) << base;
  }
  for (const char* serial : {"../admin", "1?x=1", "1#f", ""}) {
    auto request = makeRequest({}, 1, TavloSendingModeTimestamped);
    request->setAuth(TavloAuth::TavloAuthWithSession(
        nullptr, TavloAccess::TavloAccessWithSerial(serial, 0, "https://live.example/m/web/"), false));
    EXPECT_FALSE(request->url(2, 0, kEndpoints)) << serial;
  }
}

TEST(TavloHitURL, TimeStampIsCreationPlusDeltaTruncatedTowardZero) {
  struct Case {
    double created, delta;
    const char* ts;
  };
  const Case cases[] = {{1000.9, 0.5, "1001"}, {1000.9, -0.95, "999"}, {-0.5, 0, "0"}, {-1.5, 0, "-1"},
                        {1e300, 0, "9223372036854775807"}};
  for (const Case& c : cases) {
    auto request = makeRequest({}, 0, TavloSendingModeTimestamped, c.created);
    const std::string url = request->url(0, c.delta, kEndpoints).value_or("");
    EXPECT_NE(std::string::npos, url.find(std::string("&ts=") + c.ts + "&")) << url;
  }
}

TEST(TavloHitURL, RankAndStop) {
  struct Case {
    TavloString rank;
    const char* stopped;
  };
  const Case cases[] = {{"7", "8"}, {std::nullopt, "1"}, {"abc", "1"}, {"-3", "-2"}, {" 12x", "13"},
                        {"9223372036854775807", "9223372036854775807"}};
  for (const Case& c : cases) {
    TavloParameters parameters{{"x", "y"}};
    if (c.rank) parameters["cmsRK"] = *c.rank;
    auto request = makeRequest(parameters, 1, TavloSendingModeLive);
    const auto before = request->parameters();
    request->transformToStop();
    EXPECT_EQ(c.stopped, request->parameters()->at("cmsRK")) << c.rank.value_or("(absent)");
    EXPECT_EQ("12", request->parameters()->at("cmsPS"));
    EXPECT_EQ("y", request->parameters()->at("x"));
    EXPECT_NE(before, request->parameters()) << "the dictionary is replaced, never changed in place";
    EXPECT_EQ(0u, before->count("cmsPS"));
  }
  auto request = makeRequest({}, 1, TavloSendingModeLive);
  request->setTheRank(-1);
  EXPECT_EQ("-1", request->parameters()->at("cmsRK"));
}

}  // namespace
