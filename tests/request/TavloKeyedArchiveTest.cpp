#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <stdexcept>

#include <plist/plist.h>

#include "request/TavloKeyedArchiver.h"
#include "request/TavloKeyedUnarchiver.h"

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
  static std::shared_ptr<TavloCodable> initWithCoder(TavloKeyedUnarchiver& coder) {
    auto item = std::make_shared<TestItem>();
    item->name = coder.decodeString("name");
    item->count = coder.decodeInteger("count");
    item->flag = coder.decodeBool("$class");
    item->when = coder.decodeDate("when");
    item->parameters = coder.decodeParameters("parameters");
    item->child = coder.decodeObject("child");
    item->sibling = coder.decodeObject("sibling");
    return item;
  }
};

// A field-less record of its own class, like the queue's marker.
class TestMarker : public TavloCodable {
 public:
  std::vector<std::string> classChain() const override { return {"TestMarker", "NSObject"}; }
  void encodeWithCoder(TavloKeyedArchiver&) const override {}
};

// A record no reader below knows.
class TestStranger : public TestMarker {
 public:
  std::vector<std::string> classChain() const override { return {"TestStranger", "NSObject"}; }
};

const TavloClassTable kClasses{
    {"TestItem", &TestItem::initWithCoder},
    {"TestMarker", [](TavloKeyedUnarchiver&) { return std::make_shared<TestMarker>(); }},
};

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist parse(const std::string& bytes) {
  plist_t node = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
  return Plist(node);
}

std::string serialise(plist_t node, bool xml = false) {
  char* bytes = nullptr;
  uint32_t length = 0;
  xml ? plist_to_xml(node, &bytes, &length) : plist_to_bin(node, &bytes, &length);
  std::string result(bytes != nullptr ? bytes : "", length);
  xml ? plist_to_xml_free(bytes) : plist_to_bin_free(bytes);
  return result;
}

std::string text(plist_t node) {
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return "<not a string>";
  uint64_t length = 0;
  const char* value = plist_get_string_ptr(node, &length);
  return std::string(value, length);
}

uint64_t uidOf(plist_t node) {
  uint64_t value = UINT64_MAX;
  if (node != nullptr && plist_get_node_type(node) == PLIST_UID) plist_get_uid_val(node, &value);
  return value;
}

plist_t objectsOf(plist_t archive) { return plist_dict_get_item(archive, "$objects"); }
plist_t at(plist_t archive, plist_t uid) { return plist_array_get_item(objectsOf(archive), uidOf(uid)); }
plist_t rootOf(plist_t archive) { return at(archive, plist_dict_get_item(plist_dict_get_item(archive, "$top"), "root")); }
uint64_t append(plist_t archive, plist_t node) {
  plist_array_append_item(objectsOf(archive), node);
  return plist_array_get_size(objectsOf(archive)) - 1;
}

std::shared_ptr<TestItem> readItem(const std::string& bytes, std::string* error = nullptr) {
  return std::dynamic_pointer_cast<TestItem>(TavloKeyedUnarchiver::unarchivedObjectWithData(bytes, kClasses, error));
}

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

// The archive of fullItem() as a tree, for tests that damage it.
Plist fullArchive() { return parse(TavloKeyedArchiver::archivedDataWithRootObject(*fullItem())); }

void expectSameFields(const TestItem& expected, const TestItem& actual, const std::string& what) {
  EXPECT_EQ(expected.name, actual.name) << what;
  EXPECT_EQ(expected.count, actual.count) << what;
  EXPECT_EQ(expected.flag, actual.flag) << what;
  EXPECT_EQ(expected.when, actual.when) << what;
  ASSERT_EQ(expected.parameters == nullptr, actual.parameters == nullptr) << what;
  if (expected.parameters) {
    EXPECT_EQ(*expected.parameters, *actual.parameters) << what;
  }
  EXPECT_EQ(expected.child == nullptr, actual.child == nullptr) << what;
}

TEST(TavloKeyedArchive, EveryValueKindSurvivesARoundTrip) {
  const auto with = [](auto change) {
    auto item = std::make_shared<TestItem>();
    change(*item);
    return item;
  };
  const std::vector<std::pair<std::string, std::shared_ptr<TestItem>>> cases = {
      {"every field set", fullItem()},
      {"every field nil, zero or false", std::make_shared<TestItem>()},
      {"empty string and empty dictionary",
       with([](TestItem& i) {
         i.name = "";
         i.parameters = std::make_shared<const TavloParameters>();
       })},
      {"a string equal to the null marker", with([](TestItem& i) { i.name = "$null"; })},
      {"INT64_MIN", with([](TestItem& i) { i.count = std::numeric_limits<int64_t>::min(); })},
      {"INT64_MAX", with([](TestItem& i) { i.count = std::numeric_limits<int64_t>::max(); })},
      {"minus one", with([](TestItem& i) { i.count = -1; })},
      {"a date before 1970", with([](TestItem& i) { i.when = -86400.5; })},
      {"the archive's reference date", with([](TestItem& i) { i.when = TavloSecondsFrom1970To2001; })},
      {"a fractional date", with([](TestItem& i) { i.when = 1700000000.123456; })},
  };
  for (const auto& [what, item] : cases) {
    const auto read = readItem(TavloKeyedArchiver::archivedDataWithRootObject(*item));
    ASSERT_TRUE(read) << what;
    expectSameFields(*item, *read, what);
  }
}

TEST(TavloKeyedArchive, TextThatAPropertyListCannotCarryIsRepairedNotLost) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {std::string("a\0b", 3), "a\xEF\xBF\xBD" "b"},
      {"x\xFFy", "x\xEF\xBF\xBDy"},
      {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // a lone surrogate
      {"\xF0\x9F\x98\x80 ok", "\xF0\x9F\x98\x80 ok"},
  };
  for (const auto& [written, expected] : cases) {
    TestItem item;
    item.name = written;
    const auto read = readItem(TavloKeyedArchiver::archivedDataWithRootObject(item));
    ASSERT_TRUE(read);
    EXPECT_EQ(expected, read->name.value_or("<nil>")) << "for " << testing::PrintToString(written);
  }
}

TEST(TavloKeyedArchive, ARecordSharedInMemoryIsWrittenOnceAndSharedAgain) {
  auto shared = std::make_shared<TestItem>();
  shared->name = "shared";
  TestItem item;
  item.child = shared;
  item.sibling = shared;
  const std::string bytes = TavloKeyedArchiver::archivedDataWithRootObject(item);

  const Plist archive = parse(bytes);
  EXPECT_EQ(uidOf(plist_dict_get_item(rootOf(archive.get()), "child")),
            uidOf(plist_dict_get_item(rootOf(archive.get()), "sibling")));
  const auto read = readItem(bytes);
  ASSERT_TRUE(read);
  ASSERT_TRUE(read->child);
  EXPECT_EQ(read->child, read->sibling);
  EXPECT_EQ("shared", std::dynamic_pointer_cast<TestItem>(read->child)->name);
}

TEST(TavloKeyedArchive, EachArchivedRecordIsDecodedOnceHoweverOftenItIsNamed) {
  // Each rung names the next twice: decoding by reference would take 2^10 calls.
  std::vector<std::shared_ptr<TestItem>> ladder(10);
  for (auto& rung : ladder) rung = std::make_shared<TestItem>();
  for (std::size_t i = 0; i + 1 < ladder.size(); ++i) ladder[i]->child = ladder[i]->sibling = ladder[i + 1];

  int calls = 0;
  TavloClassTable counting{{"TestItem", [&calls](TavloKeyedUnarchiver& coder) {
                              ++calls;
                              return TestItem::initWithCoder(coder);
                            }}};
  auto read = std::dynamic_pointer_cast<TestItem>(TavloKeyedUnarchiver::unarchivedObjectWithData(
      TavloKeyedArchiver::archivedDataWithRootObject(*ladder.front()), counting));
  EXPECT_EQ(10, calls);
  for (int rung = 0; read; ++rung, read = std::dynamic_pointer_cast<TestItem>(read->child)) {
    EXPECT_EQ(read->child, read->sibling) << "rung " << rung;
  }
}

TEST(TavloKeyedArchive, ARecordThatRefersToItselfIsWrittenOnceAndReadWithoutTheLoop) {
  auto item = std::make_shared<TestItem>();
  item->name = "loop";
  item->child = item;
  const std::string bytes = TavloKeyedArchiver::archivedDataWithRootObject(*item);
  item->child.reset();  // lets the test's own record go

  const auto read = readItem(bytes);
  ASSERT_TRUE(read);
  EXPECT_EQ("loop", read->name);
  EXPECT_FALSE(read->child) << "the reference back to the record being read is a cycle";
}

TEST(TavloKeyedArchive, RecordsNestedPastTheDepthLimitReadAsNil) {
  auto head = std::make_shared<TestItem>();
  for (int i = 1; i < 40; ++i) {
    auto outer = std::make_shared<TestItem>();
    outer->child = head;
    head = outer;
  }
  int depth = 0;
  for (auto read = readItem(TavloKeyedArchiver::archivedDataWithRootObject(*head)); read;
       read = std::dynamic_pointer_cast<TestItem>(read->child)) {
    ++depth;
  }
  EXPECT_EQ(TavloKeyedUnarchiver::maxDepth, depth);
}

TEST(TavloKeyedArchive, RootArrayKeepsItsDecodableElementsInOrder) {
  auto item = std::make_shared<TestItem>();
  item->name = "first";
  const std::vector<std::shared_ptr<TavloCodable>> queue = {item, std::make_shared<TestMarker>(), nullptr,
                                                            std::make_shared<TestStranger>(), item};
  const std::string bytes = TavloKeyedArchiver::archivedDataWithRootArray(queue);
  std::string error;
  const auto read = TavloKeyedUnarchiver::unarchivedArrayWithData(bytes, kClasses, &error);
  ASSERT_TRUE(read) << error;
  ASSERT_EQ(3u, read->size());
  EXPECT_EQ("first", std::dynamic_pointer_cast<TestItem>(read->at(0))->name);
  EXPECT_TRUE(std::dynamic_pointer_cast<TestMarker>(read->at(1)));
  EXPECT_EQ(read->at(0), read->at(2)) << "one record twice in the queue stays one record";
  EXPECT_NE(std::string::npos, error.find("2 of 5")) << error;

  const auto empty = TavloKeyedUnarchiver::unarchivedArrayWithData(
      TavloKeyedArchiver::archivedDataWithRootArray({}), kClasses, &error);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->empty());
  EXPECT_EQ("", error);

  EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedObjectWithData(bytes, kClasses)) << "an array is no record";
  EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedArrayWithData(TavloKeyedArchiver::archivedDataWithRootObject(*item),
                                                             kClasses))
      << "a record is no array";
}

TEST(TavloKeyedArchive, WritesTheNSKeyedArchiverLayout) {
  TestItem item;
  item.name = "v";
  item.count = -42;
  item.flag = true;
  item.when = TavloSecondsFrom1970To2001 + 0.5;
  item.parameters = std::make_shared<const TavloParameters>(TavloParameters{{"k", "v"}});
  const Plist tree = parse(TavloKeyedArchiver::archivedDataWithRootObject(item));
  plist_t archive = tree.get();
  ASSERT_TRUE(archive);

  uint64_t number = 0;
  EXPECT_EQ("NSKeyedArchiver", text(plist_dict_get_item(archive, "$archiver")));
  plist_get_uint_val(plist_dict_get_item(archive, "$version"), &number);
  EXPECT_EQ(100000u, number);
  EXPECT_EQ(1u, uidOf(plist_dict_get_item(plist_dict_get_item(archive, "$top"), "root")));
  EXPECT_EQ("$null", text(plist_array_get_item(objectsOf(archive), 0)));

  const auto expectClass = [](plist_t archive, plist_t object, std::vector<std::string> chain) {
    plist_t description = at(archive, plist_dict_get_item(object, "$class"));
    ASSERT_TRUE(description) << chain.front();
    EXPECT_EQ(chain.front(), text(plist_dict_get_item(description, "$classname")));
    plist_t classes = plist_dict_get_item(description, "$classes");
    ASSERT_EQ(chain.size(), plist_array_get_size(classes)) << chain.front();
    for (uint32_t i = 0; i < chain.size(); ++i) EXPECT_EQ(chain[i], text(plist_array_get_item(classes, i)));
  };
  plist_t root = rootOf(archive);
  expectClass(archive, root, {"TestItem", "NSObject"});
  EXPECT_EQ("v", text(at(archive, plist_dict_get_item(root, "name"))));
  EXPECT_EQ(0u, uidOf(plist_dict_get_item(root, "child"))) << "nil is the $null entry";
  plist_get_uint_val(plist_dict_get_item(root, "count"), &number);
  EXPECT_EQ(static_cast<uint64_t>(-42), number) << "integers are inline";
  EXPECT_EQ(PLIST_BOOLEAN, plist_get_node_type(plist_dict_get_item(root, "$$class"))) << "escaped, inline";

  plist_t date = at(archive, plist_dict_get_item(root, "when"));
  expectClass(archive, date, {"NSDate", "NSObject"});
  double seconds = 0;
  plist_get_real_val(plist_dict_get_item(date, "NS.time"), &seconds);
  EXPECT_EQ(0.5, seconds) << "seconds since 2001";

  plist_t dictionary = at(archive, plist_dict_get_item(root, "parameters"));
  expectClass(archive, dictionary, {"NSDictionary", "NSObject"});
  EXPECT_EQ("k", text(at(archive, plist_array_get_item(plist_dict_get_item(dictionary, "NS.keys"), 0))));
  EXPECT_EQ(uidOf(plist_dict_get_item(root, "name")),
            uidOf(plist_array_get_item(plist_dict_get_item(dictionary, "NS.objects"), 0)))
      << "equal strings are written once";

  const Plist arrayTree = parse(TavloKeyedArchiver::archivedDataWithRootArray({std::make_shared<TestMarker>()}));
  plist_t array = rootOf(arrayTree.get());
  expectClass(arrayTree.get(), array, {"NSMutableArray", "NSArray", "NSObject"});
  plist_t elements = plist_dict_get_item(array, "NS.objects");
  ASSERT_EQ(1u, plist_array_get_size(elements));
  EXPECT_EQ(2u, uidOf(plist_array_get_item(elements, 0)));
}

// Changes one stored value of fullArchive(): the value under `key` in the root record.
void replace(plist_t archive, const char* key, plist_t value) { plist_dict_set_item(rootOf(archive), key, value); }

// A dictionary object of class `name` with the given entries, appended to the archive.
uint64_t appendObjectOfClass(plist_t archive, const char* name, std::vector<std::pair<const char*, plist_t>> entries) {
  plist_t description = plist_new_dict();
  plist_dict_set_item(description, "$classname", plist_new_string(name));
  plist_t classes = plist_new_array();
  plist_array_append_item(classes, plist_new_string(name));
  plist_dict_set_item(description, "$classes", classes);
  plist_t object = plist_new_dict();
  plist_dict_set_item(object, "$class", plist_new_uid(append(archive, description)));
  for (const auto& [key, value] : entries) plist_dict_set_item(object, key, value);
  return append(archive, object);
}

plist_t uidList(std::vector<uint64_t> uids) {
  plist_t list = plist_new_array();
  for (uint64_t uid : uids) plist_array_append_item(list, plist_new_uid(uid));
  return list;
}

TEST(TavloKeyedArchive, ReadsWhatOtherWritersOfTheFormatProduce) {
  struct Case {
    std::string what;
    std::function<void(plist_t)> change;
    std::function<bool(const TestItem&)> holds;
  };
  const std::vector<Case> cases = {
      {"a string as NSString", [](plist_t a) {
         replace(a, "name", plist_new_uid(appendObjectOfClass(a, "NSString", {{"NS.string", plist_new_string("s")}})));
       }, [](const TestItem& i) { return i.name == "s"; }},
      {"a string as NSMutableString", [](plist_t a) {
         replace(a, "name",
                 plist_new_uid(appendObjectOfClass(a, "NSMutableString", {{"NS.string", plist_new_string("m")}})));
       }, [](const TestItem& i) { return i.name == "m"; }},
      {"an NSMutableDictionary", [](plist_t a) {
         const uint64_t key = append(a, plist_new_string("k"));
         replace(a, "parameters", plist_new_uid(appendObjectOfClass(
                                      a, "NSMutableDictionary", {{"NS.keys", uidList({key})}, {"NS.objects", uidList({key})}})));
       }, [](const TestItem& i) { return i.parameters && *i.parameters == TavloParameters{{"k", "k"}}; }},
      {"an integer stored as a boolean", [](plist_t a) { replace(a, "count", plist_new_bool(1)); },
       [](const TestItem& i) { return i.count == 1; }},
      {"an integer stored as a real", [](plist_t a) { replace(a, "count", plist_new_real(-3.9)); },
       [](const TestItem& i) { return i.count == -3; }},
      {"a boolean stored as an integer", [](plist_t a) { replace(a, "$$class", plist_new_uint(7)); },
       [](const TestItem& i) { return i.flag; }},
      {"a date with whole seconds", [](plist_t a) {
         replace(a, "when", plist_new_uid(appendObjectOfClass(a, "NSDate", {{"NS.time", plist_new_uint(10)}})));
       }, [](const TestItem& i) { return i.when == TavloSecondsFrom1970To2001 + 10; }},
  };
  for (const Case& c : cases) {
    const Plist archive = fullArchive();
    c.change(archive.get());
    const auto read = readItem(serialise(archive.get()));
    ASSERT_TRUE(read) << c.what;
    EXPECT_TRUE(c.holds(*read)) << c.what;
  }

  const Plist archive = parse(TavloKeyedArchiver::archivedDataWithRootArray({std::make_shared<TestMarker>()}));
  plist_t description = at(archive.get(), plist_dict_get_item(rootOf(archive.get()), "$class"));
  plist_dict_set_item(description, "$classname", plist_new_string("NSArray"));
  const auto read = TavloKeyedUnarchiver::unarchivedArrayWithData(serialise(archive.get()), kClasses);
  ASSERT_TRUE(read) << "an immutable NSArray root";
  EXPECT_EQ(1u, read->size());
}

enum Field { kName, kCount, kFlag, kWhen, kParameters, kChild };
const char* const kKeys[] = {"name", "count", "$$class", "when", "parameters", "child"};

bool readsAsDefault(const TestItem& item, Field field) {
  switch (field) {
    case kName: return !item.name;
    case kCount: return item.count == 0;
    case kFlag: return !item.flag;
    case kWhen: return !item.when;
    case kParameters: return !item.parameters;
    case kChild: return !item.child;
  }
  return false;
}

TEST(TavloKeyedArchive, AValueOfTheWrongKindReadsAsTheDefaultAndSparesTheRest) {
  using Maker = std::function<plist_t(plist_t archive)>;
  const auto uid = [](uint64_t value) { return [value](plist_t) { return plist_new_uid(value); }; };
  const auto dictionaryOf = [](const char* name, std::vector<uint64_t> keys, std::vector<uint64_t> values) {
    return [=](plist_t a) {
      return plist_new_uid(appendObjectOfClass(a, name, {{"NS.keys", uidList(keys)}, {"NS.objects", uidList(values)}}));
    };
  };
  const std::vector<std::pair<std::string, Maker>> wrongForEveryKind = {
      {"inline string", [](plist_t) { return plist_new_string("inline"); }},
      {"inline dictionary", [](plist_t) { return plist_new_dict(); }},
      {"inline array", [](plist_t) { return plist_new_array(); }},
      {"data", [](plist_t) { return plist_new_data("\x01\x02", 2); }},
      {"plist date", [](plist_t) { return plist_new_date(1, 0); }},
      {"UID past the end", uid(100000)},
      {"UID 2^63", uid(uint64_t{1} << 63)},
      {"UID of a class description", [](plist_t a) { return plist_new_uid(uidOf(plist_dict_get_item(rootOf(a), "$class"))); }},
      {"real NaN", [](plist_t) { return plist_new_real(std::nan("")); }},
      {"real 1e19", [](plist_t) { return plist_new_real(1e19); }},
  };
  const std::map<Field, std::vector<std::pair<std::string, Maker>>> wrongForOneKind = {
      {kName, {{"UID of a record", uid(1)}, {"integer", [](plist_t) { return plist_new_uint(5); }},
               {"NSString without text", [](plist_t a) { return plist_new_uid(appendObjectOfClass(a, "NSString", {})); }}}},
      {kCount, {{"UID", uid(1)}, {"real -inf", [](plist_t) { return plist_new_real(-INFINITY); }}}},
      {kFlag, {{"real", [](plist_t) { return plist_new_real(1.0); }}, {"UID", uid(1)}}},
      {kWhen, {{"UID of a string", [](plist_t a) { return plist_new_uid(append(a, plist_new_string("2020"))); }},
               {"NSDate with text", [](plist_t a) {
                  return plist_new_uid(appendObjectOfClass(a, "NSDate", {{"NS.time", plist_new_string("1")}}));
                }},
               {"NSDate with NaN", [](plist_t a) {
                  return plist_new_uid(appendObjectOfClass(a, "NSDate", {{"NS.time", plist_new_real(std::nan(""))}}));
                }},
               {"UID of a record", uid(1)}}},
      {kParameters, {{"keys and values of different lengths", dictionaryOf("NSDictionary", {1}, {})},
                     {"a dictionary of another class", dictionaryOf("NSSet", {}, {})},
                     {"UID of a record", uid(1)}}},
      {kChild, {{"UID of a string", [](plist_t a) { return plist_new_uid(append(a, plist_new_string("x"))); }},
                {"an NSDate", [](plist_t a) { return plist_new_uid(appendObjectOfClass(a, "NSDate", {})); }},
                {"integer", [](plist_t) { return plist_new_uint(1); }}}},
  };

  const auto original = fullItem();
  for (Field field : {kName, kCount, kFlag, kWhen, kParameters, kChild}) {
    auto makers = wrongForEveryKind;
    makers.insert(makers.end(), wrongForOneKind.at(field).begin(), wrongForOneKind.at(field).end());
    for (const auto& [what, make] : makers) {
      const std::string label = std::string(kKeys[field]) + " holding " + what;
      const Plist archive = fullArchive();
      replace(archive.get(), kKeys[field], make(archive.get()));
      const auto read = readItem(serialise(archive.get()));
      ASSERT_TRUE(read) << label;
      EXPECT_TRUE(readsAsDefault(*read, field)) << label;
      TestItem expected = *original;
      expected.name = field == kName ? std::nullopt : expected.name;
      expected.count = field == kCount ? 0 : expected.count;
      expected.flag = field == kFlag ? false : expected.flag;
      expected.when = field == kWhen ? std::nullopt : expected.when;
      expected.parameters = field == kParameters ? nullptr : expected.parameters;
      expected.child = field == kChild ? nullptr : expected.child;
      expectSameFields(expected, *read, label);
    }
  }

  // Entries that are not strings are dropped one by one.
  const Plist archive = fullArchive();
  const uint64_t key = append(archive.get(), plist_new_string("kept"));
  replace(archive.get(), "parameters", dictionaryOf("NSDictionary", {key, 1, key + 100}, {key, key, key})(archive.get()));
  const auto read = readItem(serialise(archive.get()));
  ASSERT_TRUE(read && read->parameters);
  EXPECT_EQ((TavloParameters{{"kept", "kept"}}), *read->parameters);
}

TEST(TavloKeyedArchive, CyclesBetweenArchivedRecordsEndAtTheRecordBeingRead) {
  Plist archive = fullArchive();
  replace(archive.get(), "child", plist_new_uid(1));
  auto read = readItem(serialise(archive.get()));
  ASSERT_TRUE(read) << "a record naming itself";
  EXPECT_FALSE(read->child);

  archive = fullArchive();
  plist_t child = at(archive.get(), plist_dict_get_item(rootOf(archive.get()), "child"));
  plist_dict_set_item(child, "child", plist_new_uid(1));
  read = readItem(serialise(archive.get()));
  ASSERT_TRUE(read && read->child) << "two records naming each other";
  EXPECT_EQ("child", std::dynamic_pointer_cast<TestItem>(read->child)->name);
  EXPECT_FALSE(std::dynamic_pointer_cast<TestItem>(read->child)->child);
}

// A binary property list written byte by byte, for shapes libplist will not write.
std::string bigEndian(uint64_t value, int width) {
  std::string bytes;
  for (int i = width - 1; i >= 0; --i) bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
  return bytes;
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
std::string rawArray(std::vector<uint64_t> refs) {
  std::string object = refs.size() < 15 ? std::string(1, static_cast<char>(0xA0 | refs.size()))
                                        : "\xAF\x13" + bigEndian(refs.size(), 8);
  for (uint64_t ref : refs) object += bigEndian(ref, 4);
  return object;
}

TEST(TavloKeyedArchive, BadInputYieldsNoObjectAndSaysWhy) {
  const std::string valid = TavloKeyedArchiver::archivedDataWithRootObject(*fullItem());
  const auto changed = [](std::function<void(plist_t)> change) {
    const Plist archive = fullArchive();
    change(archive.get());
    return serialise(archive.get());
  };
  const auto withTrailerField = [&](std::size_t offset, std::string bytes) {
    std::string damaged = valid;
    damaged.replace(damaged.size() - 32 + offset, bytes.size(), bytes);
    return damaged;
  };
  const auto description = [](plist_t a) { return at(a, plist_dict_get_item(rootOf(a), "$class")); };

  std::vector<std::string> nested;
  for (uint64_t i = 1; i < 200000; ++i) nested.push_back(rawArray({i}));
  nested.push_back(rawArray({}));
  std::vector<std::string> doubling;
  for (uint64_t i = 1; i < 25; ++i) doubling.push_back(rawArray({i, i}));
  doubling.push_back(rawArray({}));

  struct Case {
    std::string what;
    std::string bytes;
    std::string because;  // a piece of the error message
  };
  std::vector<Case> cases = {
      {"empty", "", "empty"},
      {"not a property list", "this is not an archive at all", "not a binary property list"},
      {"an XML property list", serialise(fullArchive().get(), true), "not a binary property list"},
      {"one byte over the size limit", "bplist00" + std::string(TavloKeyedUnarchiver::maxArchiveBytes - 7, '\0'),
       "exceeds"},
      {"not a dictionary", rawPlist({rawArray({})}), "not a dictionary"},
      {"another archiver", changed([](plist_t a) { plist_dict_set_item(a, "$archiver", plist_new_string("NSArchiver")); }),
       "unsupported archiver \"NSArchiver\""},
      {"no archiver", changed([](plist_t a) { plist_dict_remove_item(a, "$archiver"); }), "no \"$archiver\""},
      {"an archiver that is no string", changed([](plist_t a) { plist_dict_set_item(a, "$archiver", plist_new_uint(1)); }),
       "no \"$archiver\""},
      {"no $top", changed([](plist_t a) { plist_dict_remove_item(a, "$top"); }), "$top"},
      {"$top not a dictionary", changed([](plist_t a) { plist_dict_set_item(a, "$top", plist_new_array()); }), "$top"},
      {"no root", changed([](plist_t a) { plist_dict_remove_item(plist_dict_get_item(a, "$top"), "root"); }), "root"},
      {"root not a UID",
       changed([](plist_t a) { plist_dict_set_item(plist_dict_get_item(a, "$top"), "root", plist_new_uint(1)); }), "root"},
      {"no $objects", changed([](plist_t a) { plist_dict_remove_item(a, "$objects"); }), "$objects"},
      {"$objects not an array", changed([](plist_t a) { plist_dict_set_item(a, "$objects", plist_new_dict()); }),
       "$objects"},
      {"root UID past the end",
       changed([](plist_t a) { plist_dict_set_item(plist_dict_get_item(a, "$top"), "root", plist_new_uid(1000)); }),
       "root UID 1000"},
      {"root UID 0", changed([](plist_t a) { plist_dict_set_item(plist_dict_get_item(a, "$top"), "root", plist_new_uid(0)); }),
       "root UID 0"},
      {"root is a string",
       changed([](plist_t a) { plist_array_set_item(objectsOf(a), plist_new_string("x"), 1); }), "no valid class"},
      {"unknown class name",
       changed([&](plist_t a) { plist_dict_set_item(description(a), "$classname", plist_new_string("Evil")); }),
       "class \"Evil\""},
      {"$classes not an array",
       changed([&](plist_t a) { plist_dict_set_item(description(a), "$classes", plist_new_string("TestItem")); }),
       "no valid class"},
      {"$classname not a string",
       changed([&](plist_t a) { plist_dict_set_item(description(a), "$classname", plist_new_uint(3)); }), "no valid class"},
      {"no $class", changed([](plist_t a) { plist_dict_remove_item(rootOf(a), "$class"); }), "no valid class"},
      {"$class past the end", changed([](plist_t a) { plist_dict_set_item(rootOf(a), "$class", plist_new_uid(999)); }),
       "no valid class"},
      {"$class naming the record itself",
       changed([](plist_t a) { plist_dict_set_item(rootOf(a), "$class", plist_new_uid(1)); }), "no valid class"},
      {"containers nested 200,000 deep", rawPlist(nested), "nested too deeply"},
      {"arrays that each name the next twice", rawPlist(doubling), "expand past"},
      {"an array that contains itself", rawPlist({rawArray({0})}), "cycle"},
      {"an array claiming 2^60 elements", rawPlist({"\xAF\x13" + bigEndian(uint64_t{1} << 60, 8)}), "past the object area"},
      {"an element past the last object", rawPlist({rawArray({7})}), "reference out of range"},
      {"2^62 objects", withTrailerField(8, bigEndian(uint64_t{1} << 62, 8)), "object count"},
      {"top object past the end", withTrailerField(16, bigEndian(uint64_t{1} << 62, 8)), "top object"},
      {"offset table past the end", withTrailerField(24, bigEndian(uint64_t{1} << 62, 8)), "offset table"},
      {"offsets zero bytes wide", withTrailerField(6, std::string(1, '\0')), "widths"},
      {"references nine bytes wide", withTrailerField(7, "\x09"), "widths"},
  };
  for (std::size_t cut : {std::size_t{1}, std::size_t{8}, std::size_t{20}, valid.size() / 2, valid.size() - 33,
                          valid.size() - 32, valid.size() - 1}) {
    cases.push_back({"truncated to " + std::to_string(cut) + " bytes", valid.substr(0, cut), ""});
  }

  for (const Case& c : cases) {
    std::string error;
    EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedObjectWithData(c.bytes, kClasses, &error)) << c.what;
    EXPECT_NE(std::string::npos, error.find(c.because)) << c.what << ": " << error;
    EXPECT_FALSE(error.empty()) << c.what;
    EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedArrayWithData(c.bytes, kClasses)) << c.what;
  }
}

TEST(TavloKeyedArchive, EverySingleByteDamageReadsAsNothingOrAsTheRecordClass) {
  const std::string valid = TavloKeyedArchiver::archivedDataWithRootObject(*fullItem());
  ASSERT_TRUE(readItem(valid));
  int records = 0;
  for (std::size_t i = 0; i < valid.size(); ++i) {
    for (const unsigned char value : {0x00, 0xFF, 0x0F}) {
      std::string damaged = valid;
      damaged[i] = static_cast<char>(value);
      const auto read = TavloKeyedUnarchiver::unarchivedObjectWithData(damaged, kClasses);
      if (!read) continue;
      ASSERT_TRUE(std::dynamic_pointer_cast<TestItem>(read)) << "byte " << i << " set to " << int{value};
      ++records;
    }
  }
  EXPECT_GT(records, 0) << "damage to a value must spare the rest of the record";
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
  for (const auto& element : *read) copied += std::dynamic_pointer_cast<TestItem>(element)->name.value_or("").size();
  EXPECT_EQ(longText, std::dynamic_pointer_cast<TestItem>(read->front())->name);
  EXPECT_LE(copied, 2 * TavloKeyedUnarchiver::maxArchiveBytes);
  EXPECT_FALSE(std::dynamic_pointer_cast<TestItem>(read->back())->name) << "past the cap strings read as nil";
}

TEST(TavloKeyedArchive, CodeThatThrowsLeavesNoArchiveAndNoRecord) {
  class Throwing : public TestMarker {
    void encodeWithCoder(TavloKeyedArchiver&) const override { throw std::runtime_error("disk full"); }
  };
  TestItem item;
  item.child = std::make_shared<Throwing>();
  EXPECT_EQ("", TavloKeyedArchiver::archivedDataWithRootObject(item));

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
