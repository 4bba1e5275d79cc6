// A test fixture with an agent of its own over a platform of fakes.
#pragma once

#include <memory>
#include <string>

#include "agent/TavloAgent.h"
#include "support/TavloLoggingFixture.h"

/// Makes an agent on `test.platform` with a notification centre of its own, and shuts it
/// down after the test. The scripted HTTP client answers the authorisation endpoint with
/// full access on "http://collect.test/m/web/" and the collection endpoint with 200,
/// until the test says otherwise. The logger prints everything.
class TavloAgentTest : public TavloLoggingTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// (Re)creates the agent, after shutting down the previous one.
  void startAgent();
  /// Waits until the agent's threads are at rest; fails the test if they never are.
  void settle();
  /// Delivers what the reachability monitor posted on the main queue, then settles.
  void goOnline();
  void goOffline();

  /// An audience request of `serial` with one parameter "c" = `level`.
  std::shared_ptr<TavloRequest> audienceRequest(const std::string& level, const std::string& serial = "123");
  /// A streaming request that already carries an authorisation (as streaming hits do).
  std::shared_ptr<TavloRequest> streamingRequest(const std::string& level, const std::string& serial = "123");

  std::string authAnswer = "access=full|host=http://collect.test/m/web/|cmsVI=5";
  std::shared_ptr<TavloNotificationCenter> center = std::make_shared<TavloNotificationCenter>();
  std::shared_ptr<TavloAgent> agent;
};
