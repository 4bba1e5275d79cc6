// The queue file: our writer byte for byte against the libplist-based encoder older files
// were written with, the reader on those files, and the bounds it keeps. Damaged and
// hostile bytes at large are the queue-file fuzz target's, replayed over its corpus.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <stdexcept>

#include "archive/TavloArchiveCache.h"
#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloClearCache.h"
#include "request/TavloRecordClasses.h"
#include "request/TavloRequest.h"
#include "support/TavloLibplistKeyedArchiver.h"
#include "support/TavloSampleQueue.h"
#include "util/TavloCalendar.h"

namespace {

using Queue = std::vector<std::shared_ptr<TavloCodable>>;

// A record naming another, of a class the queue's reader does not know: the shapes no
// queue has (cycles, long chains, one long string named many times) that a damaged or
// hostile file can still hold, and a stranger the queue's reader leaves out.
struct Node : TavloCodable {
  explicit Node(TavloString name = std::nullopt, std::shared_ptr<TavloCodable> left = nullptr)
      : name(std::move(name)), left(std::move(left)) {}
  TavloString name;
  std::shared_ptr<TavloCodable> left;
  std::vector<std::string> classChain() const override { return {"Node", "NSObject"}; }
  void encodeWithCoder(TavloKeyedArchiver& coder) const override {
    coder.encodeString(name, "name");
    coder.encodeObject(left.get(), "left");
  }
};
std::shared_ptr<Node> asNode(const std::shared_ptr<TavloCodable>& r) { return std::dynamic_pointer_cast<Node>(r); }

// Matching the older encoder both tests the layout and keeps old and new files alike
// (tools/check_queue_archive.py reads one with an independent reader).
TEST(TavloKeyedArchive, WritesTheSameBytesAsLibplistAndReadsBackWhatItWrote) {
  const auto with = [](auto change, TavloParameters parameters = {{"c", "home"}}) {
    auto request = TavloRequest::TavloRequestWithParameters(
        std::make_shared<const TavloParameters>(std::move(parameters)), TavloRequestTypeAudience, TavloSendingModeLive,
        "123", std::make_shared<TavloTaggerID>("123", 0, false), 1700000000.25);
    change(*request);
    return request;
  };
  const auto same = [](TavloRequest&) {};
  const auto fails = [&](int64_t count) { return with([count](TavloRequest& r) { r.setNumberOfFails(count); }); };
  const auto failedAt = [&](TavloDate date) { return with([date](TavloRequest& r) { r.setLastFail(date); }); };
  const auto unset = TavloRequest::TavloRequestWithParameters(nullptr, 0, 0, std::nullopt, nullptr, 0);
  unset->setCreationDate(std::nullopt);
  const auto sample = TavloSampleQueue(4, 3, false);
  const auto shared = std::dynamic_pointer_cast<TavloRequest>(sample[1]);
  const std::string text = "h\xC3\xA9 \xF0\x9F\x98\x80 \xED\xA0\x80 bad\xFF nul" + std::string(1, '\0') + " long enough";
  const auto odd = TavloRequest::TavloRequestWithParameters(
      std::make_shared<const TavloParameters>(TavloParameters{{text, text}, {"$null", "NSObject"}, {"$k", "NS.time"}}),
      TavloRequestTypeStreaming, -1, text, std::make_shared<TavloTaggerID>(text, -5, true), 978307200.5);
  TavloParameters wide;
  for (int i = 0; i < 300; ++i) wide.emplace("k" + std::to_string(i), std::to_string(i % 7));
  // Distinct texts of every length class past what the writer's text index starts with,
  // in places where the text met before at the same place differs by one byte.
  TavloParameters distinct;
  for (int i = 0; i < 3000; ++i) distinct.emplace(std::string(1 + i % 40, 'k') + std::to_string(i), std::to_string(i / 2));
  struct Case {
    std::string what;
    Queue queue;
    std::optional<Queue> readBack = std::nullopt;  // when not the queue less its nulls and strangers
  };
  const Case cases[] = {
      {"an empty queue", {}},
      {"requests sharing authorisation and tagger, and the marker", sample},
      {"a copy sharing its dictionary, a request twice, a null, a stranger",
       {shared, shared->copy(), shared, nullptr, std::make_shared<Node>()}},
      {"every field nil, zero or empty",
       {unset, with([](TavloRequest& r) { r.setAuth(TavloAuth::TavloAuthWithSession(nullptr, nullptr, false)); }, {})}},
      {"unicode, damaged UTF-8, NUL, $-keys and text equal to the archive's own", {odd}},
      {"integers of every width", {fails(70000), fails(1LL << 32), fails(-1), fails(INT64_MIN), fails(INT64_MAX)}},
      {"dates before 1970, at the archive's epoch, fractional, a float holds",
       {failedAt(-86400.5), failedAt(kTavloSecondsFrom1970To2001), failedAt(1700000000.123456),
        failedAt(kTavloSecondsFrom1970To2001 + 0.5)}},
      {"dates that are not finite read as nil", {failedAt(INFINITY), failedAt(NAN)}, Queue{fails(0), fails(0)}},
      {"a dictionary of 300 entries", {with(same, wide)}},
      {"3000 distinct keys, values repeated in turn, then the same again in a second request",
       {with(same, distinct), with(same, distinct)}},
      {"a string past 16 MiB (4-byte offsets)", {with(same, {{"big", std::string((16 << 20) + 1, 'x')}})}},
      {"2000 requests of unique values (3-byte references)", TavloSampleQueue(2000, 35, true)},
  };
  for (const auto& [what, queue, readBack] : cases) {
    const std::string expected = TavloLibplistKeyedArchiver::archivedDataWithRootArray(queue);
    const std::string written = TavloKeyedArchiver::archivedDataWithRootArray(queue);
    ASSERT_FALSE(expected.empty()) << what;
    EXPECT_TRUE(written == expected) << what << ": " << written.size() << " bytes, libplist wrote " << expected.size();

    std::string error;
    const auto read = TavloKeyedUnarchiver::unarchivedArrayWithData(written, TavloRecordClasses(), &error);
    if (written.size() > TavloKeyedUnarchiver::maxArchiveBytes) {
      EXPECT_TRUE(!read && error.find("exceeds") != std::string::npos) << what << ": refused before reading";
      continue;
    }
    ASSERT_TRUE(read) << what << ": " << error;
    // Written again, what was read makes the same file: every field, text as repaired on
    // writing, records shared as they were (a restricted access is spent once for all).
    Queue back = readBack.value_or(Queue{});
    if (!readBack) {
      std::copy_if(queue.begin(), queue.end(), std::back_inserter(back),
                   [](const auto& record) { return record && !asNode(record); });
    }
    const std::string again = TavloKeyedArchiver::archivedDataWithRootArray(*read);
    EXPECT_TRUE(again == TavloKeyedArchiver::archivedDataWithRootArray(back)) << what;
  }
}

// The agent saves through a cache kept from one save to the next: after each change a
// save through it must write what a fresh encoder writes, and a queue that shrank leaves
// the cache small again.
TEST(TavloKeyedArchive, SavesThroughTheAgentsCacheWriteWhatAFreshEncoderWrites) {
  struct Throwing final : Node {
    void encodeWithCoder(TavloKeyedArchiver&) const override { throw std::runtime_error("disk full"); }
  };
  const std::string odd = "caf\xC3\xA9 \xF0\x9F\x98\x80 bad\xFF nul" + std::string(1, '\0');
  const auto hit = [](TavloParameters parameters) {
    return TavloRequest::TavloRequestWithParameters(std::make_shared<const TavloParameters>(std::move(parameters)),
                                                    TavloRequestTypeAudience, TavloSendingModeLive, "1", nullptr, 0);
  };
  const TavloEndpoints endpoints = TavloEndpoints::allAt("https://aud.example");
  TavloArchiveCache cache;
  Queue queue = TavloSampleQueue(6, 4, false);
  const auto request = [&](std::size_t i) { return std::dynamic_pointer_cast<TavloRequest>(queue.at(i)); };
  const std::pair<const char*, std::function<void()>> steps[] = {
      {"the first save", [] {}},
      {"the head sent", [&] { queue.erase(queue.begin()); }},
      {"non-ASCII and damaged text appended", [&] { queue.push_back(hit({{odd, odd}, {"\xC3\xA9", "NSObject"}})); }},
      {"the network name stored in a hit", [&] { request(1)->url(2, 0, endpoints); }},
      {"a send state changed", [&] { request(2)->setNumberOfFails(3), request(2)->setLastFail(1e9); }},
      {"a copy sharing a dictionary, a hit twice", [&] { queue.push_back(request(0)->copy()), queue.push_back(queue[1]); }},
      {"a record that throws: no file", [&] { queue.push_back(std::make_shared<Throwing>()); }},
      {"that record gone", [&] { queue.pop_back(); }},
      {"all replaced by hits of unique values", [&] { queue = TavloSampleQueue(100, 35, true); }},
      {"replaced by two hits: the cache packs its texts", [&] { queue = TavloSampleQueue(2, 3, false); }},
      {"one more hit after the packing", [&] { queue.push_back(hit({{odd, "x"}})); }},
  };
  for (const auto& [what, change] : steps) {
    change();
    const std::string expected = TavloLibplistKeyedArchiver::archivedDataWithRootArray(queue);
    EXPECT_TRUE(TavloKeyedArchiver::archivedDataWithRootArray(queue, cache) == expected) << what;
  }
  EXPECT_LT(cache.memoryBytes(), 64u << 10) << "the cache of a queue of three hits";
}

TEST(TavloKeyedArchive, ShapesNoQueueHasAreReadWithinBounds) {
  const TavloClassTable classes{{"Node", [](TavloKeyedUnarchiver& coder) -> std::shared_ptr<TavloCodable> {
                                   auto node = std::make_shared<Node>(coder.decodeString("name"));
                                   if (node->name == "throws") throw std::runtime_error("bad record");
                                   node->left = coder.decodeObject("left");
                                   return node;
                                 }}};
  const auto read = [&](const Node& root) {
    return asNode(TavloKeyedUnarchiver::unarchivedObjectWithData(TavloKeyedArchiver::archivedDataWithRootObject(root),
                                                                 classes));
  };

  auto loop = std::make_shared<Node>("loop");
  loop->left = loop;
  const auto readLoop = read(*loop);
  loop->left.reset();  // lets the test's own record go
  ASSERT_TRUE(readLoop && readLoop->name == "loop") << "a record naming itself";
  EXPECT_FALSE(readLoop->left) << "the cycle ends at the record being read";

  auto head = std::make_shared<Node>();
  for (int i = 1; i < 40; ++i) head = std::make_shared<Node>(std::nullopt, head);
  int depth = 0;
  for (auto node = read(*head); node; node = asNode(node->left)) ++depth;
  EXPECT_EQ(TavloKeyedUnarchiver::maxDepth, depth) << "past the depth limit records read as nil";

  // One long string named by many records is copied out only up to the cap; a record whose
  // reading throws is left out, the others kept, and the error says how many.
  const std::string longText(1 << 20, 'x');
  Queue queue = {std::make_shared<Node>("throws")};
  for (int i = 0; i < 40; ++i) queue.push_back(std::make_shared<Node>(longText));
  const std::string bytes = TavloKeyedArchiver::archivedDataWithRootArray(queue);
  std::string error;
  const auto many = TavloKeyedUnarchiver::unarchivedArrayWithData(bytes, classes, &error);
  ASSERT_TRUE(many && many->size() == 40u) << error;
  std::size_t copied = 0;
  for (const auto& node : *many) copied += asNode(node)->name.value_or("").size();
  EXPECT_EQ(longText, asNode(many->front())->name);
  EXPECT_LE(copied, 2 * TavloKeyedUnarchiver::maxArchiveBytes);
  EXPECT_FALSE(asNode(many->back())->name) << "past the cap strings read as nil";
  EXPECT_EQ(0u, error.find("1 of 41")) << error;

  // Writing that throws leaves no archive rather than half of one.
  struct Throwing final : Node {
    void encodeWithCoder(TavloKeyedArchiver&) const override { throw std::runtime_error("disk full"); }
  };
  EXPECT_EQ("", TavloKeyedArchiver::archivedDataWithRootObject(Node(std::nullopt, std::make_shared<Throwing>())));
}

}  // namespace
