#include "support/TavloAgentFixture.h"

#include "platform/TavloLogger.h"
#include "tavlo/testkit/TavloScriptedHttpClient.h"

void TavloAgentTest::SetUp() {
  TavloLoggingTest::SetUp();
  TavloLogger::sharedLogger().setLoggingMode(TavloLoggingModeInfo);
  test.http->setHandler([this](const TavloHttpRequest& request) {
    if (request.url.rfind(test.platform.endpoints.authorisation + "/", 0) == 0) {
      return TavloScriptedHttpClient::answer(200, authAnswer);
    }
    return TavloScriptedHttpClient::answer(200, "OK");
  });
  startAgent();
}

void TavloAgentTest::TearDown() {
  if (agent) agent->shutdown();
  TavloLoggingTest::TearDown();
}

void TavloAgentTest::startAgent() {
  if (agent) agent->shutdown();
  agent = TavloAgent::make(test.platform, nullptr, center);
  settle();
}

void TavloAgentTest::settle() { ASSERT_TRUE(agent->TEST_waitUntilIdle()) << "the agent never came to rest"; }

void TavloAgentTest::goOnline() {
  test.reachability->setFlags(TavloReachabilityFlagReachable);
  test.mainQueue->runUntilIdle();
  settle();
}

void TavloAgentTest::goOffline() {
  test.reachability->setFlags(0);
  test.mainQueue->runUntilIdle();
  settle();
}

std::shared_ptr<TavloRequest> TavloAgentTest::audienceRequest(const std::string& level, const std::string& serial) {
  return TavloRequest::TavloRequestWithParameters(
      std::make_shared<const TavloParameters>(TavloParameters{{"c", level}}), TavloRequestTypeAudience,
      TavloSendingModeLive, serial, std::make_shared<TavloTaggerID>(serial, TavloTaggerID::kAudiencePartialID, false),
      test.clock->now());
}

std::shared_ptr<TavloRequest> TavloAgentTest::streamingRequest(const std::string& level, const std::string& serial) {
  auto request = TavloRequest::TavloRequestWithParameters(
      std::make_shared<const TavloParameters>(TavloParameters{{"c", level}}), TavloRequestTypeStreaming,
      TavloSendingModeLive, serial, std::make_shared<TavloTaggerID>(serial, 0, true), test.clock->now());
  request->setAuth(TavloAuth::TavloAuthWithSession(
      TavloSession::TavloSessionWithSerial(serial, "77"),
      TavloAccess::TavloAccessWithSerial(serial, TavloAccessModeFull, "http://stream.test/m/web/"), false));
  return request;
}
