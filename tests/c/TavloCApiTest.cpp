// The C interface, driven through tavlo.h as a C program drives it, against the library's
// process-wide agent. One platform serves the whole process: fakes with virtual time on
// the main queue and a capturing log, plus the real HTTP client and every endpoint at an
// in-process server, installed before the agent starts. Each test measures under serials
// of its own, so it finds its hits among the server's requests.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/TavloAgent.h"
#include "c/tavlo_c_internal.h"
#include "linux/TavloCurlHttpClient.h"
#include "platform/TavloLogger.h"
#include "platform/TavloNotificationCenter.h"
#include "streaming/TavloStreamingFixture.h"
#include "support/TavloTemporaryDirectory.h"
#include "support/TavloTestPlatform.h"
#include "support/TavloTestServer.h"
#include "tavlo/TavloAudienceTagger.h"
#include "tavlo/TavloVersion.h"
#include "tavlo/tavlo.h"

namespace {

class TavloCApiEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    server.emplace();
    server->handle("/", [this](const TavloTestServerRequest&) {
      return TavloTestServerResponse::with(200, "access=full|host=" + server->baseURL() + "/m/web/|cmsVI=3");
    });
    server->respond("/m/web/", 200, "OK");

    test = TavloMakeTestPlatform();
    home.emplace();
    // Files in a folder this environment removes, not one the never-destroyed agent keeps.
    test.files = std::make_shared<TavloPosixFileSystem>(home->path());
    test.directory.reset();
    test.platform.files = test.files;
    test.platform.httpClient = std::make_shared<TavloCurlHttpClient>();
    test.platform.endpoints = TavloEndpoints::allAt(server->baseURL());
    TavloPlatform::install(test.platform);
    TavloAgent::sharedAgent();
  }

  void TearDown() override {
    tavlo_shutdown();
    server.reset();
    home.reset();
  }

  std::optional<TavloTestServer> server;
  std::optional<TavloTemporaryDirectory> home;
  TavloTestPlatform test;
};

TavloCApiEnvironment* const environment =
    static_cast<TavloCApiEnvironment*>(::testing::AddGlobalTestEnvironment(new TavloCApiEnvironment));

// A char* the interface returned, freed with tavlo_free.
struct CString {
  explicit CString(char* text) : text(text) {}
  ~CString() { tavlo_free(text); }
  CString(const CString&) = delete;
  CString& operator=(const CString&) = delete;
  std::optional<std::string> value() const { return text ? std::optional<std::string>(text) : std::nullopt; }
  char* text;
};

std::optional<std::string> take(char* text) { return CString(text).value(); }

class TavloCApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tavlo_set_logging_mode(tavlo_logging_error);
    log().clear();
  }
  void TearDown() override { tavlo_set_logging_mode(tavlo_logging_error); }

  TavloCapturingLogSink& log() { return *environment->test.logSink; }
  TavloManualMainQueue& mainQueue() { return *environment->test.mainQueue; }
  TavloTestServer& server() { return *environment->server; }

  void settle() { ASSERT_TRUE(TavloAgent::sharedAgent()->TEST_waitUntilIdle()) << "the agent never came to rest"; }

  // The network as the library's reachability monitor reports it, on the main queue.
  void setOnline(bool online) {
    environment->test.reachability->setFlags(online ? uint32_t{TavloReachabilityFlagReachable} : uint32_t{0});
    mainQueue().runUntilIdle();
    settle();
  }

  // The hits of `serial` the server received, in order, with their parameters unescaped.
  std::vector<TavloParameters> hitsOf(const std::string& serial) {
    settle();
    std::vector<TavloParameters> hits;
    for (const auto& request : server().requests()) {
      if (request.path == "/m/web/" + serial) hits.push_back(TavloQueryParameters(request.target));
    }
    return hits;
  }

  // `key` of every hit of `serial`, "-" where a hit has none.
  std::vector<std::string> column(const std::string& serial, const std::string& key) {
    std::vector<std::string> values;
    for (const auto& hit : hitsOf(serial)) {
      const auto found = hit.find(key);
      values.push_back(found == hit.end() ? "-" : found->second);
    }
    return values;
  }
};

// The state a C program hands over with its callbacks.
struct Player {
  int64_t position = 0;
  uint8_t knowsPosition = 1;
  std::atomic<int> positionCalls{0};
  std::atomic<int> releases{0};
  std::atomic<void*> lastUserData{nullptr};
};

uint8_t playerPosition(void* userData, int64_t* position) {
  auto* player = static_cast<Player*>(userData);
  player->lastUserData = userData;
  ++player->positionCalls;
  *position = player->position;
  return player->knowsPosition;
}

void releasePlayer(void* userData) { ++static_cast<Player*>(userData)->releases; }

// Level `level` of the C++ tagger, read through its own getters.
TavloString cppLevel(const TavloTagger& tagger, int level) {
  switch (level) {
    case 1:
      return tagger.theNewLevel1();
    case 2:
      return tagger.theNewLevel2();
    case 3:
      return tagger.theNewLevel3();
    case 4:
      return tagger.theNewLevel4();
    case 5:
      return tagger.theNewLevel5();
    case 6:
      return tagger.theNewLevel6();
    case 7:
      return tagger.theNewLevel7();
    case 8:
      return tagger.theNewLevel8();
    case 9:
      return tagger.theNewLevel9();
    case 10:
      return tagger.theNewLevel10();
    case 11:
      return tagger.theNewLevel11();
    default:
      throw std::out_of_range("no level " + std::to_string(level));
  }
}

TEST_F(TavloCApiTest, VersionIsTheLibrarysAndStatic) {
  EXPECT_STREQ(TavloVersionString, tavlo_version());
  EXPECT_EQ(tavlo_version(), tavlo_version()) << "a static string, never to be freed";
}

TEST_F(TavloCApiTest, NullHandlesAreRefusedWithAnErrorLineAndANeutralAnswer) {
  Player player;
  const int64_t mode = tavlo_logging_mode();
  // Each call must come back with the neutral answer its comment in tavlo.h names.
  const struct {
    const char* function;
    std::function<bool()> callIsNeutral;
  } cases[] = {
      {"tavlo_platform_set_application", [] { return tavlo_platform_set_application(nullptr, "a", "1") == 0; }},
      {"tavlo_platform_set_endpoints_base_url",
       [] { return tavlo_platform_set_endpoints_base_url(nullptr, "http://h") == 0; }},
      {"tavlo_platform_install", [] { return tavlo_platform_install(nullptr) == 0; }},
      {"tavlo_tagger_serial", [] { return tavlo_tagger_serial(nullptr) == nullptr; }},
      {"tavlo_tagger_customer_data", [] { return tavlo_tagger_customer_data(nullptr) == nullptr; }},
      {"tavlo_tagger_can_send", [] { return tavlo_tagger_can_send(nullptr) == 0; }},
      {"tavlo_tagger_level", [] { return tavlo_tagger_level(nullptr, 1) == nullptr; }},
      {"tavlo_tagger_set_level", [] { return tavlo_tagger_set_level(nullptr, 1, "x") == 0; }},
      {"tavlo_tagger_media_content_id", [] { return tavlo_tagger_media_content_id(nullptr) == nullptr; }},
      {"tavlo_tagger_set_media_content_id", [] { return tavlo_tagger_set_media_content_id(nullptr, "x"), true; }},
      {"tavlo_tagger_media_diff_mode", [] { return tavlo_tagger_media_diff_mode(nullptr) == nullptr; }},
      {"tavlo_tagger_set_media_diff_mode", [] { return tavlo_tagger_set_media_diff_mode(nullptr, "x"), true; }},
      {"tavlo_tagger_media_channel", [] { return tavlo_tagger_media_channel(nullptr) == nullptr; }},
      {"tavlo_tagger_set_media_channel", [] { return tavlo_tagger_set_media_channel(nullptr, "x"), true; }},
      {"tavlo_tagger_net_measurement", [] { return tavlo_tagger_net_measurement(nullptr) == nullptr; }},
      {"tavlo_tagger_set_net_measurement", [] { return tavlo_tagger_set_net_measurement(nullptr, "x"), true; }},
      {"tavlo_tagger_use_idfa", [] { return tavlo_tagger_use_idfa(nullptr) == 0; }},
      {"tavlo_tagger_set_use_idfa", [] { return tavlo_tagger_set_use_idfa(nullptr, 1), true; }},
      {"tavlo_tagger_logging_mode", [] { return tavlo_tagger_logging_mode(nullptr) == -1; }},
      {"tavlo_tagger_set_logging_mode",
       [mode] { return tavlo_tagger_set_logging_mode(nullptr, 0), tavlo_logging_mode() == mode; }},
      {"tavlo_audience_tagger_as_tagger", [] { return tavlo_audience_tagger_as_tagger(nullptr) == nullptr; }},
      {"tavlo_audience_tagger_send_hit",
       [] { return tavlo_audience_tagger_send_hit(nullptr, "a", "b", "c", "d"), true; }},
      {"tavlo_streaming_config_set_level", [] { return tavlo_streaming_config_set_level(nullptr, 1, "x") == 0; }},
      {"tavlo_streaming_config_set_customer_data",
       [] { return tavlo_streaming_config_set_customer_data(nullptr, "x"), true; }},
      {"tavlo_streaming_config_set_media_genre",
       [] { return tavlo_streaming_config_set_media_genre(nullptr, "x"), true; }},
      {"tavlo_streaming_config_set_media_provider",
       [] { return tavlo_streaming_config_set_media_provider(nullptr, "x"), true; }},
      {"tavlo_streaming_tagger_as_tagger", [] { return tavlo_streaming_tagger_as_tagger(nullptr) == nullptr; }},
      {"tavlo_streaming_tagger_notify_event", [] { return tavlo_streaming_tagger_notify_event(nullptr, 0), true; }},
      {"tavlo_streaming_tagger_notify_event_at",
       [] { return tavlo_streaming_tagger_notify_event_at(nullptr, 0, 5), true; }},
      {"tavlo_streaming_tagger_set_position_callback",
       [&player] {
         tavlo_streaming_tagger_set_position_callback(nullptr, playerPosition, releasePlayer, &player);
         return player.releases == 1 && player.positionCalls == 0;
       }},
      {"tavlo_streaming_tagger_sending_mode", [] { return tavlo_streaming_tagger_sending_mode(nullptr) == -1; }},
      {"tavlo_streaming_tagger_set_sending_mode",
       [] { return tavlo_streaming_tagger_set_sending_mode(nullptr, 1) == 0; }},
      {"tavlo_streaming_tagger_current_mode", [] { return tavlo_streaming_tagger_current_mode(nullptr) == -1; }},
      {"tavlo_streaming_tagger_streaming_type", [] { return tavlo_streaming_tagger_streaming_type(nullptr) == -1; }},
      {"tavlo_streaming_tagger_level", [] { return tavlo_streaming_tagger_level(nullptr, 1) == nullptr; }},
      {"tavlo_streaming_tagger_media_name", [] { return tavlo_streaming_tagger_media_name(nullptr) == nullptr; }},
      {"tavlo_streaming_tagger_set_media_name",
       [] { return tavlo_streaming_tagger_set_media_name(nullptr, "x"), true; }},
      {"tavlo_streaming_tagger_media_url", [] { return tavlo_streaming_tagger_media_url(nullptr) == nullptr; }},
      {"tavlo_streaming_tagger_set_media_url", [] { return tavlo_streaming_tagger_set_media_url(nullptr, "x"), true; }},
      {"tavlo_streaming_tagger_media_genre", [] { return tavlo_streaming_tagger_media_genre(nullptr) == nullptr; }},
      {"tavlo_streaming_tagger_set_media_genre",
       [] { return tavlo_streaming_tagger_set_media_genre(nullptr, "x"), true; }},
      {"tavlo_streaming_tagger_media_provider",
       [] { return tavlo_streaming_tagger_media_provider(nullptr) == nullptr; }},
      {"tavlo_streaming_tagger_set_media_provider",
       [] { return tavlo_streaming_tagger_set_media_provider(nullptr, "x"), true; }},
      {"tavlo_streaming_tagger_media_volume", [] { return tavlo_streaming_tagger_media_volume(nullptr) == 0; }},
      {"tavlo_streaming_tagger_set_media_volume",
       [] { return tavlo_streaming_tagger_set_media_volume(nullptr, 9), true; }},
      {"tavlo_streaming_tagger_media_length", [] { return tavlo_streaming_tagger_media_length(nullptr) == 0; }},
      {"tavlo_streaming_tagger_set_media_length",
       [] { return tavlo_streaming_tagger_set_media_length(nullptr, 9), true; }},
  };
  for (const auto& c : cases) {
    log().clear();
    EXPECT_TRUE(c.callIsNeutral()) << c.function << " gave something other than its neutral answer";
    EXPECT_TRUE(log().contains(std::string("(ERROR) : ") + c.function + " - No "))
        << c.function << " did not say it was given NULL";
  }

  log().clear();
  tavlo_audience_tagger_release(nullptr);
  tavlo_streaming_tagger_release(nullptr);
  tavlo_platform_destroy(nullptr);
  tavlo_free(nullptr);
  EXPECT_TRUE(log().lines().empty()) << "release, destroy and free take NULL silently, as free() does";
}

TEST_F(TavloCApiTest, IndexesOutsideTheirRangeAreRefusedAndChangeNothing) {
  tavlo_audience_tagger_t* audience = tavlo_audience_tagger_with_serial("c-indexes", nullptr);
  tavlo_tagger_t* tagger = tavlo_audience_tagger_as_tagger(audience);
  for (int level = 1; level <= 11; ++level) {
    ASSERT_EQ(1, tavlo_tagger_set_level(tagger, level, ("level " + std::to_string(level)).c_str()));
  }
  for (const int index : {0, 12, -1, INT_MIN, INT_MAX}) {
    log().clear();
    EXPECT_EQ(0, tavlo_tagger_set_level(tagger, index, "intruder")) << "index " << index;
    EXPECT_EQ(std::nullopt, take(tavlo_tagger_level(tagger, index))) << "index " << index;
    EXPECT_TRUE(log().contains("is not one of 1 to 11: nothing done")) << "index " << index;
    for (int level = 1; level <= 11; ++level) {
      EXPECT_EQ("level " + std::to_string(level), take(tavlo_tagger_level(tagger, level)))
          << "refusing index " << index << " changed level " << level;
    }
  }
  tavlo_audience_tagger_release(audience);

  tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
      "c-indexes", "film", 1, nullptr, 1, tavlo_streaming_type_no_position,
      [](void*, tavlo_streaming_config_t* config) {
        for (const int index : {0, 6, -1, INT_MIN}) {
          if (tavlo_streaming_config_set_level(config, index, "intruder") != 0) throw std::logic_error("accepted");
        }
        tavlo_streaming_config_set_level(config, 5, "fifth");
      },
      nullptr);
  for (const int index : {0, 6, -1, INT_MIN}) {
    EXPECT_EQ(std::nullopt, take(tavlo_streaming_tagger_level(streaming, index))) << "index " << index;
  }
  EXPECT_EQ("fifth", take(tavlo_streaming_tagger_level(streaming, 5)));
  EXPECT_FALSE(log().contains("threw")) << "the configuration accepted a level out of 1..5";
  tavlo_streaming_tagger_release(streaming);
}

TEST_F(TavloCApiTest, PropertiesRoundTripAsFreshCopiesAndReachTheTaggerItself) {
  using Getter = char* (*)(const tavlo_tagger_t*);
  using Setter = void (*)(tavlo_tagger_t*, const char*);
  struct Property {
    std::string name;
    std::function<char*(const tavlo_tagger_t*)> get;
    std::function<void(tavlo_tagger_t*, const char*)> set;
    std::function<TavloString(const TavloTagger&)> inCpp;
  };
  std::vector<Property> properties;
  for (int level = 1; level <= 11; ++level) {
    properties.push_back({"level " + std::to_string(level),
                          [level](const tavlo_tagger_t* t) { return tavlo_tagger_level(t, level); },
                          [level](tavlo_tagger_t* t, const char* v) { tavlo_tagger_set_level(t, level, v); },
                          [level](const TavloTagger& t) { return cppLevel(t, level); }});
  }
  const struct {
    const char* name;
    Getter get;
    Setter set;
    TavloString (TavloTagger::*inCpp)() const;
  } descriptors[] = {
      {"media content id", tavlo_tagger_media_content_id, tavlo_tagger_set_media_content_id,
       &TavloTagger::mediaContentId},
      {"media diffusion mode", tavlo_tagger_media_diff_mode, tavlo_tagger_set_media_diff_mode,
       &TavloTagger::mediaDiffMode},
      {"media channel", tavlo_tagger_media_channel, tavlo_tagger_set_media_channel, &TavloTagger::mediaChannel},
      {"net measurement", tavlo_tagger_net_measurement, tavlo_tagger_set_net_measurement, &TavloTagger::netMeasurement},
  };
  for (const auto& d : descriptors) {
    properties.push_back({d.name, d.get, d.set, [getter = d.inCpp](const TavloTagger& t) { return (t.*getter)(); }});
  }

  tavlo_audience_tagger_t* audience = tavlo_audience_tagger_with_serial("c-properties", "viewer");
  tavlo_tagger_t* tagger = tavlo_audience_tagger_as_tagger(audience);
  const auto cppTagger = TavloAudienceTagger::TavloAudienceTaggerWithSerial("c-properties", "viewer");
  for (const auto& p : properties) {
    char buffer[] = "caf\xC3\xA9 du coin";
    p.set(tagger, buffer);
    std::memset(buffer, 'X', sizeof buffer - 1);
    char* first = p.get(tagger);
    char* second = p.get(tagger);
    ASSERT_NE(nullptr, first) << p.name;
    EXPECT_STREQ("caf\xC3\xA9 du coin", first) << p.name << ": the value was not copied on the way in";
    EXPECT_NE(first, second) << p.name << ": every answer is a fresh copy";
    tavlo_free(first);
    tavlo_free(second);
    EXPECT_EQ("caf\xC3\xA9 du coin", p.inCpp(*cppTagger)) << p.name << ": the C++ tagger did not get it";

    p.set(tagger, "");
    EXPECT_EQ("", take(p.get(tagger))) << p.name << ": empty is a value, not nil";
    p.set(tagger, nullptr);
    EXPECT_EQ(std::nullopt, take(p.get(tagger))) << p.name << ": NULL must clear it";
    EXPECT_EQ(std::nullopt, p.inCpp(*cppTagger)) << p.name;
  }

  EXPECT_EQ("c-properties", take(tavlo_tagger_serial(tagger)));
  EXPECT_EQ("viewer", take(tavlo_tagger_customer_data(tagger)));
  EXPECT_EQ(0, tavlo_tagger_can_send(tagger)) << "audience taggers leave it false";
  for (const uint8_t value : {1, 0, 7}) {
    tavlo_tagger_set_use_idfa(tagger, value);
    EXPECT_EQ(value != 0 ? 1 : 0, tavlo_tagger_use_idfa(tagger)) << "set to " << int(value);
    EXPECT_EQ(value != 0, cppTagger->useIDFA());
  }
  tavlo_audience_tagger_release(audience);
}

TEST_F(TavloCApiTest, HandlesOfOneSerialReachOneTaggerThatOutlivesThem) {
  tavlo_audience_tagger_t* first = tavlo_audience_tagger_with_serial("c-shared", "42");
  tavlo_audience_tagger_t* second = tavlo_audience_tagger_with_serial("c-shared", "42");
  ASSERT_NE(first, second) << "each call gives a handle of its own";
  tavlo_tagger_set_level(tavlo_audience_tagger_as_tagger(first), 1, "kept");
  EXPECT_EQ("kept", take(tavlo_tagger_level(tavlo_audience_tagger_as_tagger(second), 1)));
  tavlo_audience_tagger_release(first);
  tavlo_audience_tagger_release(second);

  const struct {
    const char* customerData;
    std::optional<std::string> level;
  } cases[] = {{"42", "kept"}, {"43", std::nullopt}, {"", std::nullopt}, {nullptr, std::nullopt}};
  for (const auto& c : cases) {
    tavlo_audience_tagger_t* again = tavlo_audience_tagger_with_serial("c-shared", c.customerData);
    EXPECT_EQ(c.level, take(tavlo_tagger_level(tavlo_audience_tagger_as_tagger(again), 1)))
        << "customer data " << (c.customerData ? c.customerData : "NULL");
    EXPECT_EQ(c.customerData ? std::optional<std::string>(c.customerData) : std::nullopt,
              take(tavlo_tagger_customer_data(tavlo_audience_tagger_as_tagger(again))));
    tavlo_audience_tagger_release(again);
  }
}

TEST_F(TavloCApiTest, AudienceHitsArriveWithTheirLevelsCustomerDataAndDescriptors) {
  tavlo_audience_tagger_t* audience = tavlo_audience_tagger_with_serial("c-audience", "viewer 7");
  tavlo_tagger_t* tagger = tavlo_audience_tagger_as_tagger(audience);
  tavlo_tagger_set_level(tagger, 1, "salon");
  tavlo_tagger_set_level(tagger, 11, "eleventh");
  tavlo_tagger_set_media_channel(tagger, "ch 1");
  tavlo_audience_tagger_send_hit(audience, "home", "page 2", nullptr, "\xC3\xA9");
  tavlo_audience_tagger_send_hit(audience, "bytes \xFF\xFE", "", "third", nullptr);
  tavlo_audience_tagger_release(audience);

  const auto hits = hitsOf("c-audience");
  ASSERT_EQ(2u, hits.size());
  const struct {
    size_t hit;
    const char* key;
    const char* value;  // nullptr: the key must be absent
  } expected[] = {
      {0, "c", "home"},           {0, "p", "page 2"},  {0, "l3", nullptr},      {0, "l4", "\xC3\xA9"},
      {0, "crmid", "viewer 7"},   {0, "ml1", "salon"}, {0, "ml11", "eleventh"}, {0, "msCh", "ch 1"},
      {1, "c", "bytes \xFF\xFE"}, {1, "p", nullptr},   {1, "l3", "third"},      {1, "l4", nullptr},
  };
  for (const auto& e : expected) {
    const auto found = hits[e.hit].find(e.key);
    if (e.value == nullptr) {
      EXPECT_EQ(hits[e.hit].end(), found) << "hit " << e.hit << " carries " << e.key;
    } else {
      ASSERT_NE(hits[e.hit].end(), found) << "hit " << e.hit << " lacks " << e.key;
      EXPECT_EQ(e.value, found->second) << "hit " << e.hit << ", " << e.key;
    }
  }
}

TEST_F(TavloCApiTest, ConfigurationCallbackGetsItsUserDataAndDescribesTheMedium) {
  struct Configuration {
    void* seen = nullptr;
    int calls = 0;
  } configuration;
  tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
      "c-config", "a film", 80, "http://media.test/film.m3u8", 5400, tavlo_streaming_type_no_position,
      [](void* userData, tavlo_streaming_config_t* config) {
        auto* self = static_cast<Configuration*>(userData);
        self->seen = userData;
        ++self->calls;
        const char* const levels[] = {"films", "two", "drama", "four", "five"};
        for (int index = 1; index <= 5; ++index) tavlo_streaming_config_set_level(config, index, levels[index - 1]);
        tavlo_streaming_config_set_media_genre(config, "thriller");
        tavlo_streaming_config_set_media_provider(config, "provider");
        tavlo_streaming_config_set_customer_data(config, "viewer 9");
      },
      &configuration);
  ASSERT_NE(nullptr, streaming);
  EXPECT_EQ(1, configuration.calls) << "called once, before the tagger is returned";
  EXPECT_EQ(&configuration, configuration.seen);

  tavlo_tagger_t* tagger = tavlo_streaming_tagger_as_tagger(streaming);
  EXPECT_EQ(1, tavlo_tagger_can_send(tagger));
  EXPECT_EQ("viewer 9", take(tavlo_tagger_customer_data(tagger)));
  EXPECT_EQ("c-config", take(tavlo_tagger_serial(tagger)));
  EXPECT_EQ(tavlo_streaming_type_no_position, tavlo_streaming_tagger_streaming_type(streaming));
  EXPECT_EQ("films", take(tavlo_streaming_tagger_level(streaming, 1)));
  EXPECT_EQ("five", take(tavlo_streaming_tagger_level(streaming, 5)));
  EXPECT_EQ("thriller", take(tavlo_streaming_tagger_media_genre(streaming)));
  EXPECT_EQ("provider", take(tavlo_streaming_tagger_media_provider(streaming)));
  EXPECT_EQ("a film", take(tavlo_streaming_tagger_media_name(streaming)));
  EXPECT_EQ("http://media.test/film.m3u8", take(tavlo_streaming_tagger_media_url(streaming)));
  EXPECT_EQ(80, tavlo_streaming_tagger_media_volume(streaming));
  EXPECT_EQ(5400, tavlo_streaming_tagger_media_length(streaming));

  // The medium's setters: a name or URL is never emptied, a genre is.
  tavlo_streaming_tagger_set_media_name(streaming, "");
  tavlo_streaming_tagger_set_media_name(streaming, nullptr);
  tavlo_streaming_tagger_set_media_url(streaming, nullptr);
  tavlo_streaming_tagger_set_media_genre(streaming, nullptr);
  tavlo_streaming_tagger_set_media_volume(streaming, 60);
  tavlo_streaming_tagger_set_media_length(streaming, -1);
  EXPECT_EQ("a film", take(tavlo_streaming_tagger_media_name(streaming)));
  EXPECT_EQ("http://media.test/film.m3u8", take(tavlo_streaming_tagger_media_url(streaming)));
  EXPECT_EQ(std::nullopt, take(tavlo_streaming_tagger_media_genre(streaming)));
  EXPECT_EQ(60, tavlo_streaming_tagger_media_volume(streaming));
  EXPECT_EQ(-1, tavlo_streaming_tagger_media_length(streaming));

  tavlo_streaming_tagger_notify_event_at(streaming, tavlo_streaming_event_play, 0);
  tavlo_streaming_tagger_release(streaming);
  const auto hits = hitsOf("c-config");
  ASSERT_EQ(1u, hits.size());
  const TavloParameters expected = {{"cmsS3", "films"}, {"cmsS2", "two"},    {"cmsS1", "drama"},    {"cmsS4", "four"},
                                    {"cmsS5", "five"},  {"dom", "provider"}, {"crmid", "viewer 9"}, {"cmsSN", "a film"},
                                    {"cmsSD", "60"},    {"cmsDU", "-1"}};
  for (const auto& [key, value] : expected) {
    const auto found = hits[0].find(key);
    ASSERT_NE(hits[0].end(), found) << "the hit lacks " << key;
    EXPECT_EQ(value, found->second) << key;
  }
  EXPECT_EQ(0u, hits[0].count("cmsGR")) << "the genre was removed";
}

TEST_F(TavloCApiTest, ABlankSerialOrMediaNameGivesATaggerThatNeverSendsNorConfigures) {
  const struct {
    const char* serial;
    const char* mediaName;
    const char* line;
  } cases[] = {
      {nullptr, "film", "serial is mandatory"},  {"", "film", "serial is mandatory"},
      {"   ", "film", "serial is mandatory"},    {"c-blank", nullptr, "mediaName is mandatory"},
      {"c-blank", "", "mediaName is mandatory"}, {"c-blank", "  ", "mediaName is mandatory"},
  };
  for (const auto& c : cases) {
    const std::string name = std::string(c.serial ? c.serial : "NULL") + " / " + (c.mediaName ? c.mediaName : "NULL");
    int calls = 0;
    log().clear();
    tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
        c.serial, c.mediaName, 1, nullptr, 1, tavlo_streaming_type_no_position,
        [](void* userData, tavlo_streaming_config_t*) { ++*static_cast<int*>(userData); }, &calls);
    ASSERT_NE(nullptr, streaming) << name;
    EXPECT_EQ(0, calls) << name << ": the configuration callback ran";
    EXPECT_EQ(0, tavlo_tagger_can_send(tavlo_streaming_tagger_as_tagger(streaming))) << name;
    EXPECT_TRUE(log().contains(c.line)) << name;
    EXPECT_EQ(0, tavlo_streaming_tagger_set_sending_mode(streaming, tavlo_sending_mode_timestamped)) << name;
    tavlo_streaming_tagger_notify_event_at(streaming, tavlo_streaming_event_play, 0);
    tavlo_streaming_tagger_release(streaming);
  }
  EXPECT_TRUE(hitsOf("c-blank").empty());
}

TEST_F(TavloCApiTest, EventsWithAndWithoutPositionReachTheCollectorInOrder) {
  tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
      "c-events", "film", 1, nullptr, 100, tavlo_streaming_type_no_position, nullptr, nullptr);
  tavlo_streaming_tagger_notify_event_at(streaming, tavlo_streaming_event_play, 12);
  mainQueue().advanceBy(2);
  tavlo_streaming_tagger_notify_event(streaming, tavlo_streaming_event_pause);
  mainQueue().advanceBy(2);
  for (const int unknown : {3, 99, -1, INT_MAX, INT_MIN}) {
    log().clear();
    tavlo_streaming_tagger_notify_event(streaming, unknown);
    tavlo_streaming_tagger_notify_event_at(streaming, unknown, 20);
    EXPECT_EQ(2u, log().count("is not play (0), pause (1) or stop (2): ignored")) << "event " << unknown;
  }
  tavlo_streaming_tagger_notify_event_at(streaming, tavlo_streaming_event_stop, 30);
  tavlo_streaming_tagger_release(streaming);

  EXPECT_EQ((std::vector<std::string>{"5", "7", "12"}), column("c-events", "cmsPS"))
      << "play, pause and stop, and nothing for the unknown events";
  EXPECT_EQ((std::vector<std::string>{"12", "12", "30"}), column("c-events", "cmsPO"))
      << "a pause without a position keeps the last one";
}

TEST_F(TavloCApiTest, PositionCallbackGetsItsUserDataAndIsReleasedOnceAfterItsLastCall) {
  Player player;
  player.position = 42;
  tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
      "c-position", "film", 1, nullptr, 100, tavlo_streaming_type_delegate_position, nullptr, nullptr);
  tavlo_streaming_tagger_set_position_callback(streaming, playerPosition, releasePlayer, &player);
  tavlo_streaming_tagger_notify_event(streaming, tavlo_streaming_event_play);
  EXPECT_EQ(1, player.positionCalls.load()) << "asked once, on this thread, for the play";
  EXPECT_EQ(&player, player.lastUserData.load());

  player.position = 50;
  mainQueue().advanceBy(10);
  EXPECT_GE(player.positionCalls.load(), 11) << "asked about once a second while the medium is open";
  EXPECT_EQ(0, player.releases.load());

  player.knowsPosition = 0;
  tavlo_streaming_tagger_notify_event(streaming, tavlo_streaming_event_pause);
  tavlo_streaming_tagger_release(streaming);
  EXPECT_EQ(1, player.releases.load()) << "released with the tagger";
  const int calls = player.positionCalls.load();
  mainQueue().advanceBy(20);
  EXPECT_EQ(calls, player.positionCalls.load()) << "asked after its release";
  EXPECT_EQ(1, player.releases.load());

  EXPECT_EQ((std::vector<std::string>{"5", "5", "7"}), column("c-position", "cmsPS"));
  EXPECT_EQ((std::vector<std::string>{"42", "50", "50"}), column("c-position", "cmsPO"))
      << "the play and the 10-second poll carry the callback's positions; the pause, "
         "without one, keeps the last";
}

TEST_F(TavloCApiTest, ReplacingClearingOrRefusingACallbackReleasesItExactlyOnce) {
  tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
      "c-replace", "film", 1, nullptr, 100, tavlo_streaming_type_delegate_position, nullptr, nullptr);
  Player first, second, unused;
  tavlo_streaming_tagger_set_position_callback(streaming, playerPosition, releasePlayer, &first);
  tavlo_streaming_tagger_set_position_callback(streaming, playerPosition, releasePlayer, &second);
  EXPECT_EQ(1, first.releases.load()) << "replaced";
  EXPECT_EQ(0, second.releases.load());

  tavlo_streaming_tagger_set_position_callback(streaming, nullptr, releasePlayer, &unused);
  EXPECT_EQ(1, second.releases.load()) << "cleared";
  EXPECT_EQ(1, unused.releases.load()) << "a release without a position callback runs at once";
  tavlo_streaming_tagger_notify_event(streaming, tavlo_streaming_event_play);
  EXPECT_EQ(0, first.positionCalls + second.positionCalls + unused.positionCalls);

  Player withoutRelease;
  tavlo_streaming_tagger_set_position_callback(streaming, playerPosition, nullptr, &withoutRelease);
  tavlo_streaming_tagger_release(streaming);
  EXPECT_EQ(0, withoutRelease.releases.load());
  for (const Player* player : {&first, &second, &unused}) {
    EXPECT_EQ(1, player->releases.load()) << "released again with the tagger";
  }
}

TEST_F(TavloCApiTest, ThrowingCallbacksNeverCrossTheInterface) {
  tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
      "c-throwing", "film", 1, nullptr, 100, tavlo_streaming_type_delegate_position,
      [](void*, tavlo_streaming_config_t* config) {
        tavlo_streaming_config_set_level(config, 1, "set before");
        throw std::runtime_error("configuration failed");
      },
      nullptr);
  ASSERT_NE(nullptr, streaming);
  EXPECT_EQ("set before", take(tavlo_streaming_tagger_level(streaming, 1)));
  EXPECT_TRUE(log().contains("The configuration callback threw"));

  static std::atomic<int> releases{0};
  tavlo_streaming_tagger_set_position_callback(
      streaming, [](void*, int64_t*) -> uint8_t { throw std::runtime_error("player gone"); },
      [](void*) {
        ++releases;
        throw std::runtime_error("release failed");
      },
      nullptr);
  tavlo_streaming_tagger_notify_event(streaming, tavlo_streaming_event_play);
  tavlo_streaming_tagger_release(streaming);
  EXPECT_EQ(1, releases.load());
  EXPECT_TRUE(log().contains("The release callback threw: ignored"));
  EXPECT_EQ((std::vector<std::string>{"0"}), column("c-throwing", "cmsPO"))
      << "the play is measured, at an unknown position";
}

TEST_F(TavloCApiTest, SendingModeIsCheckedAndGivesWayToDisconnectedWhileOffline) {
  tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
      "c-modes", "film", 1, nullptr, 100, tavlo_streaming_type_no_position, nullptr, nullptr);
  EXPECT_EQ(tavlo_sending_mode_live, tavlo_streaming_tagger_sending_mode(streaming));
  const struct {
    int mode;
    uint8_t accepted;
    int after;
  } cases[] = {
      {tavlo_sending_mode_timestamped, 1, tavlo_sending_mode_timestamped},
      {3, 0, tavlo_sending_mode_timestamped},
      {-1, 0, tavlo_sending_mode_timestamped},
      {INT_MAX, 0, tavlo_sending_mode_timestamped},
      {tavlo_sending_mode_disconnected, 1, tavlo_sending_mode_disconnected},
      {tavlo_sending_mode_live, 1, tavlo_sending_mode_live},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.accepted, tavlo_streaming_tagger_set_sending_mode(streaming, c.mode)) << "mode " << c.mode;
    EXPECT_EQ(c.after, tavlo_streaming_tagger_sending_mode(streaming)) << "after mode " << c.mode;
    EXPECT_EQ(c.after, tavlo_streaming_tagger_current_mode(streaming)) << "after mode " << c.mode;
  }

  setOnline(false);
  EXPECT_EQ(tavlo_sending_mode_disconnected, tavlo_streaming_tagger_current_mode(streaming));
  EXPECT_EQ(tavlo_sending_mode_live, tavlo_streaming_tagger_sending_mode(streaming)) << "the choice is kept";
  setOnline(true);
  EXPECT_EQ(tavlo_sending_mode_live, tavlo_streaming_tagger_current_mode(streaming));
  tavlo_streaming_tagger_release(streaming);
}

// Offline, so that no exchange is in flight: the library holds its queue's lock while it
// sends, and counting or waiting would then wait for the exchange to end.
TEST_F(TavloCApiTest, PendingHitsAreCountedAndAwaited) {
  ASSERT_EQ(0u, tavlo_pending_hit_count());
  setOnline(false);
  tavlo_streaming_tagger_t* streaming = tavlo_streaming_tagger_with_serial(
      "c-pending", "film", 1, nullptr, 100, tavlo_streaming_type_no_position, nullptr, nullptr);
  tavlo_streaming_tagger_notify_event_at(streaming, tavlo_streaming_event_play, 0);
  tavlo_streaming_tagger_notify_event_at(streaming, tavlo_streaming_event_pause, 5);
  tavlo_streaming_tagger_release(streaming);
  settle();

  EXPECT_EQ(1u, tavlo_pending_hit_count()) << "disconnected: the play makes no hit, the pause one";
  for (const double timeout : {0.0, -1.0, std::nan(""), -std::numeric_limits<double>::infinity(), 0.05}) {
    EXPECT_EQ(0, tavlo_wait_for_pending_hits(timeout)) << "timeout " << timeout << ": the hit cannot be sent";
  }
  setOnline(true);
  EXPECT_EQ(1, tavlo_wait_for_pending_hits(10));
  EXPECT_EQ(0u, tavlo_pending_hit_count());
  EXPECT_EQ(1, tavlo_wait_for_pending_hits(std::numeric_limits<double>::infinity())) << "empty: no wait at all";
}

TEST_F(TavloCApiTest, LoggingModeIsProcessWideAndSetFromAnyTagger) {
  tavlo_audience_tagger_t* audience = tavlo_audience_tagger_with_serial("c-logging", nullptr);
  tavlo_tagger_t* tagger = tavlo_audience_tagger_as_tagger(audience);
  EXPECT_EQ(tavlo_logging_error, tavlo_tagger_logging_mode(tagger));
  for (const int64_t mode : {int64_t{0}, int64_t{1}, int64_t{3}, int64_t{-1}, std::numeric_limits<int64_t>::max()}) {
    tavlo_set_logging_mode(mode);
    EXPECT_EQ(mode, tavlo_logging_mode());
    EXPECT_EQ(mode, TavloLogger::sharedLogger().loggingMode());
    EXPECT_EQ(tavlo_logging_error, tavlo_tagger_logging_mode(tagger)) << "the process-wide call leaves the tagger's";
  }
  tavlo_tagger_set_logging_mode(tagger, tavlo_logging_warning);
  EXPECT_EQ(tavlo_logging_warning, tavlo_tagger_logging_mode(tagger));
  EXPECT_EQ(tavlo_logging_warning, tavlo_logging_mode()) << "a tagger's mode is the process's too";

  const struct {
    int64_t mode;
    bool printed;
  } thresholds[] = {{tavlo_logging_error, true}, {tavlo_logging_none, false}, {-1, false}};
  for (const auto& t : thresholds) {
    tavlo_set_logging_mode(t.mode);
    log().clear();
    tavlo_tagger_serial(nullptr);
    EXPECT_EQ(t.printed, log().contains("tavlo_tagger_serial")) << "threshold " << t.mode;
  }
  tavlo_audience_tagger_release(audience);
}

TEST_F(TavloCApiTest, ForegroundCallReachesTheLibrarysObservers) {
  auto center = TavloNotificationCenter::defaultCenter();
  std::atomic<int> posted{0};
  const auto token = center->addObserver(kTavloApplicationWillEnterForegroundNotification,
                                         [&](const std::string&, const void*) { ++posted; });
  tavlo_application_will_enter_foreground();
  tavlo_application_will_enter_foreground();
  center->removeObserver(token);
  EXPECT_EQ(2, posted.load());
}

TEST_F(TavloCApiTest, PlatformDescriptionBecomesThePlatformInstalled) {
  tavlo_platform_t* platform = tavlo_platform_create();
  ASSERT_NE(nullptr, platform);
  EXPECT_EQ(TavloEndpoints::compiledDefaults().authorisation, TavloPlatformFromC(*platform).endpoints.authorisation);
  EXPECT_EQ(std::nullopt, TavloPlatformFromC(*platform).deviceInfo->bundleName());

  EXPECT_EQ(1, tavlo_platform_set_application(platform, "Tavlo C", "2.0"));
  EXPECT_EQ(1, tavlo_platform_set_endpoints_base_url(platform, "HTTP://127.0.0.1:8080//"));
  const struct {
    const char* name;
    const char* version;
  } refusedApplications[] = {{"Bad\r\nX-Injected: 1", "1"}, {"App", "1\n"}, {"App\x7f", nullptr}};
  for (const auto& a : refusedApplications) {
    EXPECT_EQ(0, tavlo_platform_set_application(platform, a.name, a.version)) << a.name;
  }
  const char* const refusedURLs[] = {nullptr,          "",           "ftp://h",       "http://",
                                     "http:///path",   "https:",     "http://a b",    "http://h\n",
                                     "127.0.0.1:8080", "http://h\"", "http://h/\x7f", "//h"};
  for (const char* url : refusedURLs) {
    EXPECT_EQ(0, tavlo_platform_set_endpoints_base_url(platform, url)) << (url ? url : "NULL");
  }
  const TavloPlatform made = TavloPlatformFromC(*platform);
  EXPECT_EQ("Tavlo C", made.deviceInfo->bundleName()) << "refused names must change nothing";
  EXPECT_EQ("2.0", made.deviceInfo->bundleVersion());
  for (const std::string* endpoint : {&made.endpoints.authorisation, &made.endpoints.audienceCollection,
                                      &made.endpoints.streamingCollection, &made.endpoints.secondCollection}) {
    EXPECT_EQ("HTTP://127.0.0.1:8080", *endpoint) << "refused URLs must change nothing";
  }

  EXPECT_EQ(1, tavlo_platform_set_application(platform, nullptr, "3"));
  EXPECT_EQ(std::nullopt, TavloPlatformFromC(*platform).deviceInfo->bundleName());

  log().clear();
  EXPECT_EQ(0, tavlo_platform_install(platform)) << "the library has started: too late";
  EXPECT_TRUE(log().contains("it keeps the platform it started with"));
  EXPECT_EQ(server().baseURL(), TavloPlatform::installed().endpoints.authorisation);
  tavlo_platform_destroy(platform);
}

}  // namespace
