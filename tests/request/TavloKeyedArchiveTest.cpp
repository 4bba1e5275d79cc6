#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <set>
#include <stdexcept>

#include <plist/plist.h>

#include "request/TavloClearCache.h"
#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"
#include "request/TavloRequest.h"
#include "support/TavloLibplistKeyedArchiver.h"
#include "support/TavloSampleQueue.h"
#include "util/TavloCalendar.h"

namespace {

// A record with one field of every kind the coder knows. The flag goes under "$class",
// the archive's own reserved key, so a round trip proves that coder keys are escaped.
class TestItem : public TavloCodable {
 public:
  TavloString name;
  int64_t count = 0;
  bool flag = false;
  std::optional<TavloDate> when;
  std::shared_ptr<const TavloParameters> parameters;
  std::shared_ptr<TavloCodable> child;
  std::shared_ptr<TavloCodable> sibling;

  std::vector<std::string> classChain() const override { return {"TestItem", "NSObject"}; }
  void encodeWithCoder(TavloKeyedArchiver& coder) const override {
    coder.encodeString(name, "name");
    coder.encodeInteger(count, "count");
    coder.encodeBool(flag, "$class");
    coder.encodeDate(when, "when");
    coder.encodeParameters(parameters, "parameters");
    coder.encodeObject(child.get(), "child");
    coder.encodeObject(sibling.get(), "sibling");
  }
  // Reads its keys in another order than it writes them, as other decoders may.
  static std::shared_ptr<TavloCodable> initWithCoder(TavloKeyedUnarchiver& coder) {
    auto item = std::make_shared<TestItem>();
    item->child = coder.decodeObject("child");
    item->sibling = coder.decodeObject("sibling");
    item->name = coder.decodeString("name");
    item->when = coder.decodeDate("when");
    item->count = coder.decodeInteger("count");
    item->flag = coder.decodeBool("$class");
    item->parameters = coder.decodeParameters("parameters");
    return item;
  }
};

// A field-less record of its own class, like the queue's marker, and one no reader knows.
class TestMarker : public TavloCodable {
 public:
  std::vector<std::string> classChain() const override { return {"TestMarker", "NSObject"}; }
  void encodeWithCoder(TavloKeyedArchiver&) const override {}
};
class TestStranger : public TestMarker {
 public:
  std::vector<std::string> classChain() const override { return {"TestStranger", "NSObject"}; }
};

const TavloClassTable kClasses{
    {"TestItem", &TestItem::initWithCoder},
    {"TestMarker", [](TavloKeyedUnarchiver&) { return std::make_shared<TestMarker>(); }},
};

std::shared_ptr<TestItem> asItem(const std::shared_ptr<TavloCodable>& record) {
  return std::dynamic_pointer_cast<TestItem>(record);
}
std::shared_ptr<TestItem> readItem(const std::string& bytes) {
  return asItem(TavloKeyedUnarchiver::unarchivedObjectWithData(bytes, kClasses));
}
std::string archived(const TavloCodable& record) { return TavloKeyedArchiver::archivedDataWithRootObject(record); }

std::shared_ptr<TestItem> fullItem() {
  auto item = std::make_shared<TestItem>();
  item->name = "h\xC3\xA9llo";
  item->count = -42;
  item->flag = true;
  item->when = 1700000000.25;
  item->parameters = std::make_shared<const TavloParameters>(TavloParameters{{"a", "1"}, {"b", ""}, {"c", "h\xC3\xA9"}});
  auto child = std::make_shared<TestItem>();
  child->name = "child";
  item->child = child;
  return item;
}

void expectSameFields(const TestItem& expected, const TestItem& actual, const std::string& what) {
  EXPECT_EQ(expected.name, actual.name) << what;
  EXPECT_EQ(expected.count, actual.count) << what;
  EXPECT_EQ(expected.flag, actual.flag) << what;
  EXPECT_EQ(expected.when, actual.when) << what;
  ASSERT_EQ(expected.parameters == nullptr, actual.parameters == nullptr) << what;
  const auto entries = [](const TestItem& i) { return i.parameters ? *i.parameters : TavloParameters{}; };
  EXPECT_EQ(entries(expected), entries(actual)) << what;
  EXPECT_EQ(expected.child == nullptr, actual.child == nullptr) << what;
}

// ---- Archives as property-list trees, to inspect and to damage ----

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist parse(const std::string& bytes) {
  plist_t node = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
  return Plist(node);
}
Plist fullArchive() { return parse(archived(*fullItem())); }

std::string serialise(plist_t node) {
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(node, &bytes, &length);
  std::string result(bytes != nullptr ? bytes : "", length);
  plist_to_bin_free(bytes);
  return result;
}

uint64_t uidOf(plist_t node) {
  uint64_t value = UINT64_MAX;
  if (node != nullptr && plist_get_node_type(node) == PLIST_UID) plist_get_uid_val(node, &value);
  return value;
}

plist_t item(plist_t node, const char* key) { return plist_dict_get_item(node, key); }
plist_t objectsOf(plist_t archive) { return item(archive, "$objects"); }
plist_t at(plist_t archive, plist_t uid) { return plist_array_get_item(objectsOf(archive), uidOf(uid)); }
plist_t rootOf(plist_t archive) { return at(archive, item(item(archive, "$top"), "root")); }
plist_t classOf(plist_t archive, plist_t object) { return at(archive, item(object, "$class")); }
uint64_t append(plist_t archive, plist_t node) {
  plist_array_append_item(objectsOf(archive), node);
  return plist_array_get_size(objectsOf(archive)) - 1;
}
// Changes the value under `key` in the root record.
void replace(plist_t archive, const char* key, plist_t value) { plist_dict_set_item(rootOf(archive), key, value); }

// A UID naming a new object of class `name` with the given entries.
plist_t newObject(plist_t archive, const char* name, std::vector<std::pair<const char*, plist_t>> entries = {}) {
  plist_t description = plist_new_dict();
  plist_dict_set_item(description, "$classname", plist_new_string(name));
  plist_t classes = plist_new_array();
  plist_array_append_item(classes, plist_new_string(name));
  plist_dict_set_item(description, "$classes", classes);
  plist_t object = plist_new_dict();
  plist_dict_set_item(object, "$class", plist_new_uid(append(archive, description)));
  for (const auto& [key, value] : entries) plist_dict_set_item(object, key, value);
  return plist_new_uid(append(archive, object));
}
plist_t newDictionary(plist_t archive, const char* name, std::vector<uint64_t> keys, std::vector<uint64_t> values) {
  const auto uidList = [](const std::vector<uint64_t>& uids) {
    plist_t list = plist_new_array();
    for (uint64_t uid : uids) plist_array_append_item(list, plist_new_uid(uid));
    return list;
  };
  return newObject(archive, name, {{"NS.keys", uidList(keys)}, {"NS.objects", uidList(values)}});
}

// ---- Round trips ----

TEST(TavloKeyedArchive, EveryValueKindSurvivesARoundTrip) {
  const auto with = [](auto change) {
    auto item = std::make_shared<TestItem>();
    change(*item);
    return item;
  };
  const std::vector<std::pair<std::string, std::shared_ptr<TestItem>>> cases = {
      {"every field set", fullItem()},
      {"every field nil, zero or false", std::make_shared<TestItem>()},
      {"empty string and empty dictionary", with([](TestItem& i) {
         i.name = "";
         i.parameters = std::make_shared<const TavloParameters>();
       })},
      {"a string equal to the null marker", with([](TestItem& i) { i.name = "$null"; })},
      {"INT64_MIN", with([](TestItem& i) { i.count = std::numeric_limits<int64_t>::min(); })},
      {"INT64_MAX", with([](TestItem& i) { i.count = std::numeric_limits<int64_t>::max(); })},
      {"minus one", with([](TestItem& i) { i.count = -1; })},
      {"a date before 1970", with([](TestItem& i) { i.when = -86400.5; })},
      {"the archive's reference date", with([](TestItem& i) { i.when = kTavloSecondsFrom1970To2001; })},
      {"a fractional date", with([](TestItem& i) { i.when = 1700000000.123456; })},
  };
  for (const auto& [what, item] : cases) {
    const auto read = readItem(archived(*item));
    ASSERT_TRUE(read) << what;
    expectSameFields(*item, *read, what);
  }

  // Text a property list cannot carry is repaired, not lost.
  const std::vector<std::pair<std::string, std::string>> texts = {
      {std::string("a\0b", 3), "a\xEF\xBF\xBD" "b"},
      {"x\xFFy", "x\xEF\xBF\xBDy"},
      {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // a lone surrogate
      {"\xF0\x9F\x98\x80 ok", "\xF0\x9F\x98\x80 ok"},
  };
  for (const auto& [written, expected] : texts) {
    const auto read = readItem(archived(*with([&](TestItem& i) { i.name = written; })));
    ASSERT_TRUE(read);
    EXPECT_EQ(expected, read->name.value_or("<nil>")) << "for " << testing::PrintToString(written);
  }
}

TEST(TavloKeyedArchive, EachRecordIsWrittenAndDecodedOnceHoweverOftenItIsNamed) {
  // Each rung names the next twice: writing or decoding by reference would take 2^10.
  std::vector<std::shared_ptr<TestItem>> ladder(10);
  for (auto& rung : ladder) rung = std::make_shared<TestItem>();
  for (std::size_t i = 0; i + 1 < ladder.size(); ++i) ladder[i]->child = ladder[i]->sibling = ladder[i + 1];
  int calls = 0;
  const TavloClassTable counting{{"TestItem", [&calls](TavloKeyedUnarchiver& coder) {
                                    ++calls;
                                    return TestItem::initWithCoder(coder);
                                  }}};
  auto read = asItem(TavloKeyedUnarchiver::unarchivedObjectWithData(archived(*ladder.front()), counting));
  EXPECT_EQ(10, calls);
  for (int rung = 0; read; ++rung, read = asItem(read->child)) {
    EXPECT_EQ(read->child, read->sibling) << "rung " << rung << ": one record, named twice, stays one";
  }
}

TEST(TavloKeyedArchive, CyclesEndAtTheRecordBeingRead) {
  auto loop = std::make_shared<TestItem>();
  loop->name = "loop";
  loop->child = loop;
  const std::string bytes = archived(*loop);
  loop->child.reset();  // lets the test's own record go
  const auto read = readItem(bytes);
  ASSERT_TRUE(read) << "a record naming itself";
  EXPECT_EQ("loop", read->name);
  EXPECT_FALSE(read->child);

  const Plist archive = fullArchive();
  plist_dict_set_item(at(archive.get(), item(rootOf(archive.get()), "child")), "child", plist_new_uid(1));
  const auto pair = readItem(serialise(archive.get()));
  ASSERT_TRUE(pair && pair->child) << "two records naming each other";
  EXPECT_EQ("child", asItem(pair->child)->name);
  EXPECT_FALSE(asItem(pair->child)->child);
}

TEST(TavloKeyedArchive, RecordsNestedPastTheDepthLimitReadAsNil) {
  auto head = std::make_shared<TestItem>();
  for (int i = 1; i < 40; ++i) {
    auto outer = std::make_shared<TestItem>();
    outer->child = head;
    head = outer;
  }
  int depth = 0;
  for (auto read = readItem(archived(*head)); read; read = asItem(read->child)) ++depth;
  EXPECT_EQ(TavloKeyedUnarchiver::maxDepth, depth);
}

TEST(TavloKeyedArchive, RootArrayKeepsItsDecodableElementsInOrder) {
  auto first = std::make_shared<TestItem>();
  first->name = "first";
  const std::string bytes = TavloKeyedArchiver::archivedDataWithRootArray(
      {first, std::make_shared<TestMarker>(), nullptr, std::make_shared<TestStranger>(), first});
  std::string error;
  const auto read = TavloKeyedUnarchiver::unarchivedArrayWithData(bytes, kClasses, &error);
  ASSERT_TRUE(read) << error;
  ASSERT_EQ(3u, read->size());
  EXPECT_EQ("first", asItem(read->at(0))->name);
  EXPECT_TRUE(std::dynamic_pointer_cast<TestMarker>(read->at(1)));
  EXPECT_EQ(read->at(0), read->at(2)) << "one record twice in the queue stays one record";
  EXPECT_NE(std::string::npos, error.find("2 of 5")) << error;

  const auto empty =
      TavloKeyedUnarchiver::unarchivedArrayWithData(TavloKeyedArchiver::archivedDataWithRootArray({}), kClasses, &error);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->empty());
  EXPECT_EQ("", error);
  EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedObjectWithData(bytes, kClasses)) << "an array is no record";
  EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedArrayWithData(archived(*first), kClasses)) << "a record is no array";
}

// ---- The bytes: the same as libplist wrote them ----
// tools/check_queue_archive.py reads a queue file with two independent readers; here the
// writer is compared with the libplist-based encoder the queue files were written with
// before, which both tests the layout and keeps old and new files alike.

unsigned trailerByte(const std::string& bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes[bytes.size() - 32 + at]);
}

TEST(TavloKeyedArchive, WritesTheSameBytesAsLibplist) {
  using Queue = std::vector<std::shared_ptr<TavloCodable>>;
  const auto item = [](auto change) {
    auto i = fullItem();
    change(*i);
    return Queue{i};
  };
  auto sample = TavloSampleQueue(4, 3, false);
  auto copied = std::dynamic_pointer_cast<TavloRequest>(sample[1])->copy();
  const std::string text = "h\xC3\xA9 \xF0\x9F\x98\x80 \xED\xA0\x80 bad\xFF nul" + std::string(1, '\0') + " long enough";
  auto odd = TavloRequest::TavloRequestWithParameters(
      std::make_shared<const TavloParameters>(TavloParameters{{text, text}, {"$null", "NSObject"}, {"$k", "NS.time"}}),
      TavloRequestTypeStreaming, -1, text, std::make_shared<TavloTaggerID>(text, -5, true), 978307200.5);
  TavloParameters wide;
  for (int i = 0; i < 300; ++i) wide.emplace("k" + std::to_string(i), std::to_string(i % 7));
  const std::pair<std::string, Queue> cases[] = {
      {"an empty queue", {}},
      {"a marker alone", {TavloClearCache::make()}},
      {"requests with authorisation and tagger, and the marker", sample},
      {"a copied request sharing its dictionary, a request twice, a null", {sample[1], copied, sample[1], nullptr}},
      {"unicode, damaged UTF-8, NUL, $-keys and text equal to the archive's own", {odd}},
      {"integers of every width", item([](TestItem& i) { i.count = 70000; })},
      {"INT64_MIN", item([](TestItem& i) { i.count = std::numeric_limits<int64_t>::min(); })},
      {"2^32", item([](TestItem& i) { i.count = int64_t{1} << 32; })},
      {"a date a float holds", item([](TestItem& i) { i.when = kTavloSecondsFrom1970To2001 + 0.5; })},
      {"an infinite date", item([](TestItem& i) { i.when = INFINITY; })},
      {"a NaN date", item([](TestItem& i) { i.when = NAN; })},
      {"a dictionary of 300 entries", item([&](TestItem& i) { i.parameters = std::make_shared<const TavloParameters>(wide); })},
      {"a string past 16 MiB (4-byte offsets)", item([](TestItem& i) { i.name = std::string((16 << 20) + 1, 'x'); })},
      {"2000 requests of unique values (3-byte references)", TavloSampleQueue(2000, 35, true)},
  };
  std::set<unsigned> refWidths;
  std::set<unsigned> offsetWidths;
  for (const auto& [what, queue] : cases) {
    const std::string expected = TavloLibplistKeyedArchiver::archivedDataWithRootArray(queue);
    const std::string written = TavloKeyedArchiver::archivedDataWithRootArray(queue);
    ASSERT_FALSE(expected.empty()) << what;
    EXPECT_TRUE(written == expected) << what << ": " << written.size() << " bytes, libplist wrote " << expected.size();
    offsetWidths.insert(trailerByte(expected, 6));
    refWidths.insert(trailerByte(expected, 7));
  }
  EXPECT_EQ((std::set<unsigned>{1, 2, 3}), refWidths) << "the table must widen the references";
  EXPECT_EQ((std::set<unsigned>{1, 2, 3, 4}), offsetWidths) << "the table must widen the offsets";
  const auto root = fullItem();
  EXPECT_TRUE(TavloLibplistKeyedArchiver::archivedDataWithRootObject(*root) == archived(*root)) << "a record as the root";
}

// A queue whose every value differs: tens of thousands of objects, 3-byte references.
TEST(TavloKeyedArchive, AQueueOfUniqueValuesRoundTrips) {
  const auto queue = TavloSampleQueue(2000, 35, true);
  std::string error;
  const auto read = TavloKeyedUnarchiver::unarchivedArrayWithData(TavloKeyedArchiver::archivedDataWithRootArray(queue),
                                                                  TavloRecordClasses(), &error);
  ASSERT_TRUE(read) << error;
  EXPECT_EQ("", error);
  ASSERT_EQ(queue.size(), read->size());
  for (std::size_t i = 0; i + 1 < queue.size(); ++i) {
    const auto written = std::dynamic_pointer_cast<TavloRequest>(queue[i]);
    const auto back = std::dynamic_pointer_cast<TavloRequest>(read->at(i));
    ASSERT_TRUE(back) << i;
    EXPECT_EQ(written->hash(), back->hash()) << i << ": dates, fails, mode, status";
    EXPECT_EQ(written->requestType(), back->requestType()) << i;
    EXPECT_EQ(*written->parameters(), *back->parameters()) << i;
    EXPECT_EQ(written->serial(), back->serial()) << i;
    ASSERT_TRUE(back->auth() && back->taggerID()) << i;
    EXPECT_EQ(written->auth()->currentAccess()->host(), back->auth()->currentAccess()->host()) << i;
    EXPECT_EQ(written->taggerID()->partialID(), back->taggerID()->partialID()) << i;
  }
  EXPECT_TRUE(std::dynamic_pointer_cast<TavloClearCache>(read->back()));
}

// ---- Values as other writers store them, and values of the wrong kind ----

TEST(TavloKeyedArchive, EachStoredValueReadsAsItsFieldOrAsTheDefaultAndSparesTheRest) {
  using Maker = std::function<plist_t(plist_t archive)>;
  using Change = std::function<void(TestItem&)>;
  struct Row {
    const char* key;
    std::string what;
    Maker stored;
    Change expected;  // applied to fullItem()
  };
  const auto uid = [](uint64_t value) -> Maker { return [value](plist_t) { return plist_new_uid(value); }; };
  const auto real = [](double value) -> Maker { return [value](plist_t) { return plist_new_real(value); }; };
  const Maker uidOfAString = [](plist_t a) { return plist_new_uid(append(a, plist_new_string("2020"))); };
  const Change noName = [](TestItem& i) { i.name.reset(); };
  const Change noCount = [](TestItem& i) { i.count = 0; };
  const Change noFlag = [](TestItem& i) { i.flag = false; };
  const Change noDate = [](TestItem& i) { i.when.reset(); };
  const Change noParameters = [](TestItem& i) { i.parameters.reset(); };
  const Change noChild = [](TestItem& i) { i.child.reset(); };
  std::vector<Row> rows = {
      // What other writers of the format produce.
      {"name", "an NSString", [](plist_t a) { return newObject(a, "NSString", {{"NS.string", plist_new_string("s")}}); },
       [](TestItem& i) { i.name = "s"; }},
      {"name", "an NSMutableString",
       [](plist_t a) { return newObject(a, "NSMutableString", {{"NS.string", plist_new_string("m")}}); },
       [](TestItem& i) { i.name = "m"; }},
      {"parameters", "an NSMutableDictionary",
       [](plist_t a) {
         const uint64_t key = append(a, plist_new_string("k"));
         return newDictionary(a, "NSMutableDictionary", {key}, {key});
       },
       [](TestItem& i) { i.parameters = std::make_shared<const TavloParameters>(TavloParameters{{"k", "k"}}); }},
      {"count", "a boolean", [](plist_t) { return plist_new_bool(1); }, [](TestItem& i) { i.count = 1; }},
      {"count", "a real", real(-3.9), [](TestItem& i) { i.count = -3; }},
      {"$$class", "an integer", [](plist_t) { return plist_new_uint(7); }, [](TestItem& i) { i.flag = true; }},
      {"when", "a date in whole seconds", [](plist_t a) { return newObject(a, "NSDate", {{"NS.time", plist_new_uint(10)}}); },
       [](TestItem& i) { i.when = kTavloSecondsFrom1970To2001 + 10; }},
      // Values of the wrong kind for one field.
      {"name", "UID of a record", uid(1), noName},
      {"name", "integer", [](plist_t) { return plist_new_uint(5); }, noName},
      {"name", "NSString without text", [](plist_t a) { return newObject(a, "NSString"); }, noName},
      {"count", "UID", uid(1), noCount},
      {"count", "real -inf", real(-INFINITY), noCount},
      {"$$class", "real", real(1.0), noFlag},
      {"$$class", "UID", uid(1), noFlag},
      {"when", "UID of a string", uidOfAString, noDate},
      {"when", "NSDate with text", [](plist_t a) { return newObject(a, "NSDate", {{"NS.time", plist_new_string("1")}}); },
       noDate},
      {"when", "NSDate with NaN", [](plist_t a) { return newObject(a, "NSDate", {{"NS.time", plist_new_real(NAN)}}); },
       noDate},
      {"when", "UID of a record", uid(1), noDate},
      {"parameters", "keys and values of different lengths",
       [](plist_t a) { return newDictionary(a, "NSDictionary", {1}, {}); }, noParameters},
      {"parameters", "a dictionary of another class", [](plist_t a) { return newDictionary(a, "NSSet", {}, {}); },
       noParameters},
      {"parameters", "UID of a record", uid(1), noParameters},
      {"child", "UID of a string", uidOfAString, noChild},
      {"child", "an NSDate", [](plist_t a) { return newObject(a, "NSDate"); }, noChild},
      {"child", "integer", [](plist_t) { return plist_new_uint(1); }, noChild},
  };
  // Values of the wrong kind for every field.
  const std::pair<std::string, Maker> wrongForEveryKind[] = {
      {"inline string", [](plist_t) { return plist_new_string("inline"); }},
      {"inline dictionary", [](plist_t) { return plist_new_dict(); }},
      {"data", [](plist_t) { return plist_new_data("\x01\x02", 2); }},
      {"UID past the end", uid(100000)},
      {"UID 2^63", uid(uint64_t{1} << 63)},
      {"UID of a class description", [](plist_t a) { return plist_new_uid(uidOf(item(rootOf(a), "$class"))); }},
      {"real NaN", real(NAN)},
      {"real 1e19", real(1e19)},
  };
  const std::pair<const char*, Change> defaults[] = {
      {"name", noName}, {"count", noCount}, {"$$class", noFlag},
      {"when", noDate}, {"parameters", noParameters}, {"child", noChild},
  };
  for (const auto& [key, reset] : defaults) {
    for (const auto& [what, make] : wrongForEveryKind) rows.push_back({key, what, make, reset});
  }

  for (const Row& row : rows) {
    const std::string label = std::string(row.key) + " holding " + row.what;
    const Plist archive = fullArchive();
    replace(archive.get(), row.key, row.stored(archive.get()));
    const auto read = readItem(serialise(archive.get()));
    ASSERT_TRUE(read) << label;
    TestItem expected = *fullItem();
    row.expected(expected);
    expectSameFields(expected, *read, label);
  }

  // Dictionary entries that are not strings are dropped one by one.
  Plist archive = fullArchive();
  const uint64_t key = append(archive.get(), plist_new_string("kept"));
  replace(archive.get(), "parameters", newDictionary(archive.get(), "NSDictionary", {key, 1, key + 100}, {key, key, key}));
  const auto read = readItem(serialise(archive.get()));
  ASSERT_TRUE(read && read->parameters);
  EXPECT_EQ((TavloParameters{{"kept", "kept"}}), *read->parameters);

  // An immutable array as the root.
  archive = parse(TavloKeyedArchiver::archivedDataWithRootArray({std::make_shared<TestMarker>()}));
  plist_dict_set_item(classOf(archive.get(), rootOf(archive.get())), "$classname", plist_new_string("NSArray"));
  const auto array = TavloKeyedUnarchiver::unarchivedArrayWithData(serialise(archive.get()), kClasses);
  ASSERT_TRUE(array) << "an immutable NSArray root";
  EXPECT_EQ(1u, array->size());
}

// A binary property list written byte by byte, for shapes no writer makes: objects in
// order, 4-byte references and offsets.
std::string bigEndian(uint64_t value, int width) {
  std::string bytes;
  for (int i = width - 1; i >= 0; --i) bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
  return bytes;
}
std::string counted(unsigned kind, uint64_t count) {
  return count < 15 ? std::string(1, static_cast<char>(kind << 4 | count))
                    : std::string(1, static_cast<char>(kind << 4 | 15)) + "\x13" + bigEndian(count, 8);
}
std::string rawPlist(const std::vector<std::string>& objects) {
  std::string out = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += bigEndian(out.size(), 4);
    out += object;
  }
  const uint64_t tableOffset = out.size();
  return out + table + std::string(6, '\0') + '\4' + '\4' + bigEndian(objects.size(), 8) + bigEndian(0, 8) +
         bigEndian(tableOffset, 8);
}
std::string rawRefs(unsigned kind, uint64_t count, const std::vector<uint64_t>& refs) {
  std::string object = counted(kind, count);
  for (uint64_t ref : refs) object += bigEndian(ref, 4);
  return object;
}
std::string rawString(const std::string& text) { return counted(0x5, text.size()) + text; }
std::string rawUID(uint64_t uid) { return "\x83" + bigEndian(uid, 4); }

// A keyed archive whose "$objects" are `objects` after "$null" (UIDs from 1), with
// `extra` objects after those of the frame (indices from 9 + objects.size()).
std::string rawArchive(const std::vector<uint64_t>& objects, const std::vector<std::string>& extra,
                       uint64_t objectCount = 0) {
  std::vector<uint64_t> all = {8};
  all.insert(all.end(), objects.begin(), objects.end());
  std::vector<std::string> plist = {
      rawRefs(0xD, 3, {1, 3, 5, 2, 4, 6}), rawString("$archiver"), rawString("NSKeyedArchiver"), rawString("$objects"),
      rawRefs(0xA, objectCount ? objectCount : all.size(), all), rawString("$top"), rawRefs(0xD, 1, {7, 9}),
      rawString("root"), rawString("$null"), rawUID(1)};
  plist.insert(plist.end(), extra.begin(), extra.end());
  return rawPlist(plist);
}

TEST(TavloKeyedArchive, BadInputYieldsNoObjectAndSaysWhy) {
  const std::string valid = archived(*fullItem());
  const auto changed = [](std::function<void(plist_t)> change) {
    const Plist archive = fullArchive();
    change(archive.get());
    return serialise(archive.get());
  };
  // One record dictionary of 100,000 entries named by 200 UIDs: each UID is decoded on
  // its own, and each lookup in it compares every key.
  constexpr uint64_t kEntries = 100000;
  std::vector<uint64_t> entries(kEntries, 21);
  entries.push_back(15);
  entries.insert(entries.end(), kEntries, 0);
  entries.push_back(16);
  std::vector<uint64_t> elements;
  std::vector<std::string> extra = {
      rawRefs(0xD, 2, {13, 15, 14, 16}),            // 10, UID 1: the root array
      rawRefs(0xD, 2, {17, 19, 18, 20}),            // 11, UID 2: its class
      rawRefs(0xD, kEntries + 1, entries),          // 12, UIDs 3 to 202: the large record
      rawString("NS.objects"), "",                  // 13, 14: the root's elements
      rawString("$class"), rawUID(2),               // 15, 16
      rawString("$classname"), rawString("NSMutableArray"), rawString("$classes"), rawRefs(0xA, 1, {18}),  // 17-20
      rawString("k")};                              // 21
  for (uint64_t uid = 3; uid < 203; ++uid) {
    elements.push_back(extra.size() + 10);
    extra.push_back(rawUID(uid));
  }
  extra[4] = rawRefs(0xA, elements.size(), elements);
  std::vector<uint64_t> objects = {10, 11};
  objects.insert(objects.end(), 200, 12);
  const std::string costly = rawArchive(objects, extra);
  std::string tooManyObjects = valid;
  tooManyObjects.replace(valid.size() - 24, 8, bigEndian(uint64_t{1} << 62, 8));

  struct Case {
    std::string what;
    std::string bytes;
    std::string because;  // a piece of the error message
  };
  const Case cases[] = {
      {"empty", "", "empty"},
      {"truncated by one byte", valid.substr(0, valid.size() - 1), ""},
      {"not a property list", "this is not an archive at all", "not a binary property list"},
      {"one byte over the size limit", "bplist00" + std::string(TavloKeyedUnarchiver::maxArchiveBytes - 7, '\0'),
       "exceeds"},
      {"not a dictionary", rawPlist({rawRefs(0xA, 0, {})}), "not a dictionary"},
      {"another archiver", changed([](plist_t a) { plist_dict_set_item(a, "$archiver", plist_new_string("NSArchiver")); }),
       "unsupported archiver \"NSArchiver\""},
      {"root not a UID", changed([](plist_t a) { plist_dict_set_item(item(a, "$top"), "root", plist_new_uint(1)); }),
       "no \"root\""},
      {"root UID past the end", changed([](plist_t a) { plist_dict_set_item(item(a, "$top"), "root", plist_new_uid(1000)); }),
       "root UID 1000"},
      {"unknown class name",
       changed([](plist_t a) { plist_dict_set_item(classOf(a, rootOf(a)), "$classname", plist_new_string("Evil")); }),
       "class \"Evil\""},
      {"$class naming the record itself", changed([](plist_t a) { replace(a, "$class", plist_new_uid(1)); }),
       "no valid class"},
      {"\"$objects\" claiming 2^60 elements", rawArchive({}, {}, uint64_t{1} << 60), "no \"$objects\""},
      {"\"$objects\" of 2^20 + 1 elements", rawArchive(std::vector<uint64_t>(1 << 20, 0), {}), "more than the"},
      {"2^62 objects", tooManyObjects, "object count"},
  };
  for (const Case& c : cases) {
    std::string error;
    EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedObjectWithData(c.bytes, kClasses, &error)) << c.what;
    EXPECT_FALSE(error.empty()) << c.what;
    EXPECT_NE(std::string::npos, error.find(c.because)) << c.what << ": " << error;
    EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedArrayWithData(c.bytes, kClasses)) << c.what;
  }
  std::string error;
  EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedArrayWithData(costly, kClasses, &error)) << "too much work";
  EXPECT_NE(std::string::npos, error.find("steps")) << error;
}

// The same property list with other widths and encodings, as other writers choose them:
// references and offsets of `refWidth` and `offsetWidth` bytes, integers of at least
// `integerWidth` bytes, ASCII strings as UTF-16.
struct Form {
  unsigned refWidth;
  unsigned offsetWidth;
  unsigned integerWidth;
  bool asUTF16;
};
std::string rewritten(const std::string& in, const Form& form) {
  const auto* b = reinterpret_cast<const unsigned char*>(in.data());
  const auto read = [b](uint64_t at, unsigned width) {
    uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) value = value << 8 | b[at + i];
    return value;
  };
  const uint64_t trailer = in.size() - 32;
  const unsigned offsetWidth = b[trailer + 6];
  const unsigned refWidth = b[trailer + 7];
  const uint64_t count = read(trailer + 8, 8);
  std::string out = "bplist00";
  std::string table;
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t at = read(read(trailer + 24, 8) + i * offsetWidth, offsetWidth);
    table += bigEndian(out.size(), static_cast<int>(form.offsetWidth));
    const unsigned kind = b[at] >> 4;
    uint64_t n = b[at++] & 0x0F;
    if (n == 15 && kind >= 0x4) {
      const unsigned width = 1u << (b[at] & 0x0F);
      n = read(at + 1, width);
      at += 1 + width;
    }
    if (kind == 0x1) {
      const uint64_t value = read(at, 1u << n);
      const unsigned width = std::max(form.integerWidth, 1u << n);
      out += width == 16 ? "\x14" + std::string(8, '\0') + bigEndian(value, 8)
                         : static_cast<char>(0x10 | (width == 8 ? 3 : width == 4 ? 2 : width == 2 ? 1 : 0)) +
                               bigEndian(value, static_cast<int>(width));
    } else if (kind == 0x5 && form.asUTF16 && n > 0) {  // libplist reads no empty UTF-16
      out += counted(0x6, n);
      for (uint64_t k = 0; k < n; ++k) out += std::string(1, '\0') + static_cast<char>(b[at + k]);
    } else if (kind == 0x5 || kind == 0x6) {
      out += counted(kind, n) + in.substr(at, kind == 0x6 ? 2 * n : n);
    } else if (kind == 0xA || kind == 0xD) {
      out += counted(kind, n);
      for (uint64_t k = 0; k < (kind == 0xD ? 2 * n : n); ++k) {
        out += bigEndian(read(at + k * refWidth, refWidth), static_cast<int>(form.refWidth));
      }
    } else {  // booleans, reals, UIDs: kept as they are
      const uint64_t size = kind == 0x0 ? 0 : kind == 0x2 ? uint64_t{1} << n : n + 1;
      out += in.substr(at - 1, size + 1);
    }
  }
  return out + table + std::string(6, '\0') + static_cast<char>(form.offsetWidth) + static_cast<char>(form.refWidth) +
         bigEndian(count, 8) + bigEndian(0, 8) + bigEndian(out.size(), 8);
}

TEST(TavloKeyedArchive, ReadsTheWidthsAndEncodingsOtherWritersChoose) {
  const auto item = fullItem();
  const std::string bytes = archived(*item);
  for (const Form& form : {Form{2, 2, 1, false}, Form{3, 3, 8, true}, Form{5, 7, 16, false}, Form{8, 8, 16, true}}) {
    const std::string label = "references " + std::to_string(form.refWidth) + ", offsets " +
                              std::to_string(form.offsetWidth) + ", integers " + std::to_string(form.integerWidth) +
                              (form.asUTF16 ? ", UTF-16" : "");
    const std::string other = rewritten(bytes, form);
    ASSERT_TRUE(parse(other)) << label << ": libplist must read the rewritten list too";
    const auto read = readItem(other);
    ASSERT_TRUE(read) << label;
    expectSameFields(*item, *read, label);
  }
}

TEST(TavloKeyedArchive, OneLongStringNamedByManyRecordsIsCopiedOnlyUpToTheCap) {
  const std::string longText(1 << 20, 'x');
  std::vector<std::shared_ptr<TavloCodable>> queue;
  for (int i = 0; i < 40; ++i) {
    auto item = std::make_shared<TestItem>();
    item->name = longText;
    queue.push_back(item);
  }
  const std::string bytes = TavloKeyedArchiver::archivedDataWithRootArray(queue);
  ASSERT_LT(bytes.size(), 2u << 20) << "the string is written once";
  const auto read = TavloKeyedUnarchiver::unarchivedArrayWithData(bytes, kClasses);
  ASSERT_TRUE(read);
  ASSERT_EQ(40u, read->size());
  std::size_t copied = 0;
  for (const auto& element : *read) copied += asItem(element)->name.value_or("").size();
  EXPECT_EQ(longText, asItem(read->front())->name);
  EXPECT_LE(copied, 2 * TavloKeyedUnarchiver::maxArchiveBytes);
  EXPECT_FALSE(asItem(read->back())->name) << "past the cap strings read as nil";
}

TEST(TavloKeyedArchive, CodeThatThrowsLeavesNoArchiveAndNoRecord) {
  class Throwing : public TestMarker {
    void encodeWithCoder(TavloKeyedArchiver&) const override { throw std::runtime_error("disk full"); }
  };
  TestItem parent;
  parent.child = std::make_shared<Throwing>();
  EXPECT_EQ("", archived(parent));

  const TavloClassTable throwing{{"TestItem", [](TavloKeyedUnarchiver&) -> std::shared_ptr<TavloCodable> {
                                    throw std::runtime_error("bad record");
                                  }},
                                 {"TestMarker", kClasses.at("TestMarker")}};
  std::string error;
  const auto read = TavloKeyedUnarchiver::unarchivedArrayWithData(
      TavloKeyedArchiver::archivedDataWithRootArray({std::make_shared<TestItem>(), std::make_shared<TestMarker>()}),
      throwing, &error);
  ASSERT_TRUE(read);
  EXPECT_EQ(1u, read->size()) << "the other element is still read";
  EXPECT_NE(std::string::npos, error.find("1 of 2")) << error;
}

}  // namespace
