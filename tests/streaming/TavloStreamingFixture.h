// What the streaming tests share: an agent on fakes, taggers on it, and the hits they made.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TavloAgentFixture.h"
#include "tavlo/TavloStreamingTagger.h"
#include "streaming/TavloStreamingTaggerImpl.h"

/// A delegate whose answer the test chooses; it counts its calls and may throw.
class TavloTestPositionDelegate : public TavloStreamingTaggerDelegate {
 public:
  std::optional<int64_t> currentPositionForStreamingTagger(TavloStreamingTagger& tagger) override {
    ++calls;
    if (throws) throw std::runtime_error("player gone");
    return answer ? answer(tagger) : std::nullopt;
  }
  std::function<std::optional<int64_t>(TavloStreamingTagger&)> answer;
  std::atomic<int> calls{0};
  bool throws = false;
};

/// A delegate that does not supply positions at all.
class TavloSilentDelegate : public TavloStreamingTaggerDelegate {};

/// The parameters of a hit URL's query, unescaped.
inline TavloParameters TavloQueryParameters(const std::string& url) {
  const auto decode = [](const std::string& text) {
    std::string decoded;
    for (size_t i = 0; i < text.size(); ++i) {
      const bool escape = text[i] == '%' && i + 2 < text.size();
      decoded += escape ? static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)) : text[i];
      if (escape) i += 2;
    }
    return decoded;
  };
  TavloParameters parameters;
  std::string query = url.substr(std::min(url.find('?'), url.size() - 1) + 1) + "&";
  for (size_t start = 0, end; (end = query.find('&', start)) != std::string::npos; start = end + 1) {
    const std::string piece = query.substr(start, end - start);
    const size_t equals = piece.find('=');
    if (equals != std::string::npos) parameters[decode(piece.substr(0, equals))] = decode(piece.substr(equals + 1));
  }
  return parameters;
}

/// An agent on fakes (online, answering every hit with 200) with virtual time on the
/// manual main queue, which runs the taggers' timers.
class TavloStreamingTest : public TavloAgentTest {
 protected:
  std::shared_ptr<TavloStreamingTagger> tagger(TavloStreamingType type = TavloStreamingTypeNoPosition,
                                               TavloStreamingTagger::ConfigurationBlock configure = nullptr,
                                               TavloString serial = "123", TavloString mediaName = "film") {
    return TavloStreamingTaggerOnAgent(agent, std::move(serial), std::move(mediaName), 80,
                                                                "http://media.test/film.m3u8", 5400, type,
                                                                std::move(configure));
  }

  /// A fresh agent (with a fresh authorisation cache) whose hits alone count from now on.
  void startCase() {
    startAgent();
    firstRequest = test.http->requestCount();
  }

  /// Moves virtual time to `seconds` after the test began, running the timers due.
  void advanceTo(double seconds) { test.mainQueue->advanceBy(seconds - test.mainQueue->elapsed()); }

  /// Every hit the agent took from taggers, in the order it took them: those it sent
  /// (read back from their URL, which adds "cmsVI", "m_ntwk" and time stamps), then
  /// those still in its queue.
  std::vector<TavloParameters> hits() {
    settle();
    std::vector<TavloParameters> found;
    for (const auto& request : requests()) {
      if (!isAuthorisation(request)) found.push_back(TavloQueryParameters(request.url));
    }
    for (const auto& request : agent->TEST_queue()) {
      if (request->requestType() == TavloRequestTypeStreaming) found.push_back(*request->parameters());
    }
    return found;
  }

  /// `key` of every hit, "-" where a hit has none.
  std::vector<std::string> column(const std::string& key) {
    std::vector<std::string> values;
    for (const auto& hit : hits()) {
      const auto found = hit.find(key);
      values.push_back(found == hit.end() ? "-" : found->second);
    }
    return values;
  }

  /// How many authorisation exchanges the agent ran.
  size_t authorisations() {
    settle();
    size_t count = 0;
    for (const auto& request : requests()) count += isAuthorisation(request) ? 1 : 0;
    return count;
  }

  /// What the HTTP client received since the case began.
  std::vector<TavloHttpRequest> requests() {
    auto all = test.http->requests();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(std::min(firstRequest, all.size())));
    return all;
  }

  /// The fakes put every endpoint at one base: collection paths begin with "/m/web/".
  bool isAuthorisation(const TavloHttpRequest& request) {
    const std::string& base = test.platform.endpoints.authorisation;
    return request.url.rfind(base + "/", 0) == 0 && request.url.rfind(base + "/m/web/", 0) != 0;
  }

  /// Makes the cached authorisation of `tagger` refuse streaming hits.
  void denyStreaming(const TavloStreamingTagger& tagger) {
    auto access = TavloAccess::TavloAccessWithSerial("123", TavloAccessModeDenied, "http://collect.test/m/web/");
    agent->authManager()->setAuthToCache(TavloAuth::TavloAuthWithSession(nullptr, access, false), *TavloTaggerIDOf(tagger));
  }

  size_t firstRequest = 0;
};
