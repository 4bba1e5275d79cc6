// Streaming measurement from end to end: the public tagger, the agent's real threads,
// libcurl, and an in-process authorisation and collection server whose received bytes
// are what the test asserts on. The tagger's timers run in virtual time.
#include <atomic>
#include <string>
#include <vector>

#include "linux/TavloCurlHttpClient.h"
#include "streaming/TavloStreamingFixture.h"
#include "TavloLocalServer.h"
#include "tavlo/TavloVersion.h"

namespace {

class TavloStreamingIntegrationTest : public TavloStreamingTest {
 protected:
  void SetUp() override {
    test.platform.httpClient = std::make_shared<TavloCurlHttpClient>();
    test.platform.endpoints = TavloEndpoints::allAt(server.baseURL());
    // Each exchange opens a new visit: 41, 42, ...
    server.handle("/", [this](const TavloLocalServerRequest&) {
      return TavloLocalServerResponse::with(
          200, "access=full|host=" + server.baseURL() + "/m/web/|cmsVI=" + std::to_string(++visits));
    });
    server.respond("/m/web/", 200, "OK");
    TavloStreamingTest::SetUp();
  }

  std::vector<TavloLocalServerRequest> received(bool authorisations) {
    settle();
    std::vector<TavloLocalServerRequest> found;
    for (const auto& request : server.requests()) {
      if ((request.path.rfind("/m/web/", 0) != 0) == authorisations) found.push_back(request);
    }
    return found;
  }

  TavloLocalServer server;
  std::atomic<int> visits{40};
};

TEST_F(TavloStreamingIntegrationTest, PlayPausePlayStopReachesTheCollectorInOrderThenANewVisitBegins) {
  const auto t = tagger(TavloStreamingTypeNoPosition, [](TavloStreamingConfig& config) {
    config.setLevel1("films");
    config.setLevel3("drama");
    config.setCustomerData("viewer 42");
    config.setMediaProvider("provider");
  });
  // Each hit is on the wire before the next event: a hit queued while the cache is still
  // empty is authorised when it is sent, so one queued before the first answer and sent
  // after the stop forgot it would open the next visit.
  t->notifyEvent(TavloStreamingEventPlay, 0);
  ASSERT_TRUE(server.waitForRequests(2));
  advanceTo(2);
  t->notifyEvent(TavloStreamingEventPause, 2);
  ASSERT_TRUE(server.waitForRequests(3));
  advanceTo(4);
  t->notifyEvent(TavloStreamingEventPlay, 2);
  ASSERT_TRUE(server.waitForRequests(4));
  advanceTo(6);
  t->notifyEvent(TavloStreamingEventStop, 6);
  ASSERT_TRUE(server.waitForRequests(5));

  const auto hits = received(false);
  ASSERT_EQ(4u, hits.size());
  const char* const codes[] = {"5", "7", "5", "12"};
  const char* const positions[] = {"0", "2", "2", "6"};
  const char* const previous[] = {"0", "0", "2", "2"};
  for (size_t i = 0; i < hits.size(); ++i) {
    const TavloParameters parameters = TavloQueryParameters(hits[i].target);
    EXPECT_EQ("/m/web/123", hits[i].path) << "live hits go to the access's host";
    EXPECT_EQ("GET", hits[i].method);
    EXPECT_EQ(std::to_string(i + 1), parameters.at("cmsRK")) << "ranks in arrival order from 1";
    EXPECT_EQ("41", parameters.at("cmsVI")) << "the visit the authorisation server opened";
    EXPECT_EQ(codes[i], parameters.at("cmsPS")) << i;
    EXPECT_EQ(positions[i], parameters.at("cmsPO")) << i;
    EXPECT_EQ(previous[i], parameters.at("cmsOP")) << i;
    EXPECT_EQ("state", parameters.at("cmsEV"));
    EXPECT_EQ("TestApp/1.2.3 Tavlo SDK v" TAVLO_VERSION_STRING " apple tv", hits[i].header("User-Agent"));
  }
  // The first hit, byte for byte: the defaults, the streaming set with its crosswise
  // levels, and what the URL adds, sorted without regard to case and escaped.
  EXPECT_EQ(
      "/m/web/123?cmsDU=5400&cmsEV=state&cmsME=http%3A%2F%2Fmedia.test%2Ffilm.m3u8&cmsMV=5&cmsOP=0&cmsPL=TestModel"
      "&cmsPO=0&cmsPS=5&cmsRK=1&cmsS1=drama&cmsS3=films&cmsSD=80&cmsSN=film&cmsVI=41&crmid=viewer%2042&dom=provider"
      "&ds=16.7&m_fw=1.0&m_ntwk=Wifi&m_os=TestModel&n=" +
          TavloQueryParameters(hits[0].target).at("n") +
          "&sch=1080&scp=32&scw=1920&tag_type=apps&tn=tvOS&uid=00000000-0000-4000-8000-000000000001&v=" TAVLO_VERSION_STRING,
      hits[0].target);

  auto authorisations = received(true);
  ASSERT_EQ(1u, authorisations.size());
  EXPECT_EQ("/123", authorisations[0].path);
  EXPECT_EQ("/123", server.requests()[0].path) << "the authorisation comes before the first hit";

  // The stop renewed the session: the next playing is authorised afresh, in a new visit.
  t->notifyEvent(TavloStreamingEventPlay, 0);
  ASSERT_TRUE(server.waitForRequests(7));
  authorisations = received(true);
  ASSERT_EQ(2u, authorisations.size());
  const auto after = received(false);
  ASSERT_EQ(5u, after.size());
  const TavloParameters parameters = TavloQueryParameters(after[4].target);
  EXPECT_EQ("1", parameters.at("cmsRK"));
  EXPECT_EQ("42", parameters.at("cmsVI"));
  EXPECT_EQ("5", parameters.at("cmsPS"));
  EXPECT_TRUE(agent->TEST_queue().empty());
}

}  // namespace
