#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
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
      {"the archive's reference date", with([](TestItem& i) { i.when = TavloSecondsFrom1970To2001; })},
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

// ---- The layout other readers of the format expect ----
// tools/check_queue_archive.py reads a whole queue file with an independent reader
// ($archiver, $version, $null, $top, class chains, inline numbers, NSDate, NSDictionary,
// shared records); these are the details it does not look at.

TEST(TavloKeyedArchive, WritesTheNSKeyedArchiverLayout) {
  TestItem written;
  written.name = "v";
  written.flag = true;
  written.parameters = std::make_shared<const TavloParameters>(TavloParameters{{"k", "v"}});
  const Plist archive = parse(archived(written));
  ASSERT_TRUE(archive);
  plist_t root = rootOf(archive.get());
  EXPECT_EQ(PLIST_BOOLEAN, plist_get_node_type(item(root, "$$class"))) << "a key that starts with $ is escaped";
  plist_t dictionary = at(archive.get(), item(root, "parameters"));
  EXPECT_EQ(uidOf(item(root, "name")), uidOf(plist_array_get_item(item(dictionary, "NS.objects"), 0)))
      << "equal strings are written once";

  const Plist arrayArchive = parse(TavloKeyedArchiver::archivedDataWithRootArray({std::make_shared<TestMarker>()}));
  plist_t classes = item(classOf(arrayArchive.get(), rootOf(arrayArchive.get())), "$classes");
  ASSERT_EQ(3u, plist_array_get_size(classes));
  EXPECT_EQ("NSArray", text(plist_array_get_item(classes, 1))) << "a mutable array is an array too";
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
       [](TestItem& i) { i.when = TavloSecondsFrom1970To2001 + 10; }},
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
  const std::string valid = archived(*fullItem());
  const auto changed = [](std::function<void(plist_t)> change) {
    const Plist archive = fullArchive();
    change(archive.get());
    return serialise(archive.get());
  };
  std::vector<std::string> nested;
  for (uint64_t i = 1; i < 200000; ++i) nested.push_back(rawArray({i}));
  nested.push_back(rawArray({}));
  std::vector<std::string> doubling;
  for (uint64_t i = 1; i < 25; ++i) doubling.push_back(rawArray({i, i}));
  doubling.push_back(rawArray({}));
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
      {"not a dictionary", rawPlist({rawArray({})}), "not a dictionary"},
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
      {"containers nested 200,000 deep", rawPlist(nested), "nested too deeply"},
      {"arrays that each name the next twice", rawPlist(doubling), "expand past"},
      {"an array that contains itself", rawPlist({rawArray({0})}), "cycle"},
      {"an array claiming 2^60 elements", rawPlist({"\xAF\x13" + bigEndian(uint64_t{1} << 60, 8)}), "past the object area"},
      {"2^62 objects", tooManyObjects, "object count"},
  };
  for (const Case& c : cases) {
    std::string error;
    EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedObjectWithData(c.bytes, kClasses, &error)) << c.what;
    EXPECT_FALSE(error.empty()) << c.what;
    EXPECT_NE(std::string::npos, error.find(c.because)) << c.what << ": " << error;
    EXPECT_FALSE(TavloKeyedUnarchiver::unarchivedArrayWithData(c.bytes, kClasses)) << c.what;
  }
}

TEST(TavloKeyedArchive, EverySingleByteDamageReadsAsNothingOrAsTheRecordClass) {
  const std::string valid = archived(*fullItem());
  ASSERT_TRUE(readItem(valid));
  int records = 0;
  for (std::size_t i = 0; i < valid.size(); ++i) {
    for (const unsigned char value : {0x00, 0xFF, 0x0F}) {
      std::string damaged = valid;
      damaged[i] = static_cast<char>(value);
      const auto read = TavloKeyedUnarchiver::unarchivedObjectWithData(damaged, kClasses);
      if (!read) continue;
      ASSERT_TRUE(asItem(read)) << "byte " << i << " set to " << int{value};
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
