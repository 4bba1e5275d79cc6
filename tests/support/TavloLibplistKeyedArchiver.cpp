#include "support/TavloLibplistKeyedArchiver.h"

#include <cstdlib>
#include <exception>
#include <string_view>

#include "util/TavloText.h"
#include "util/TavloCalendar.h"

namespace {

constexpr uint64_t kArchiveVersion = 100000;
constexpr uint64_t kNullUID = 0;

// libplist takes strings as C strings and re-encodes non-ASCII text as UTF-16 without
// checking it: a NUL would cut the string short and a malformed sequence comes back as
// unrelated characters, or vanishes. Replacing each bad byte with U+FFFD keeps the rest.
std::string plistText(const std::string& text) {
  if (TavloIsValidUTF8(text) && text.find('\0') == std::string::npos) return text;
  return TavloReplacingInvalidUTF8(text);
}

// NSKeyedArchiver reserves keys that begin with "$" for itself ("$class") and escapes a
// coder's own such keys with one more "$"; the unarchiver applies the same rule.
std::string archivedKey(const std::string& key) { return !key.empty() && key.front() == '$' ? "$" + key : key; }

struct BinaryFree {
  void operator()(char* bytes) const { plist_to_bin_free(bytes); }
};

}  // namespace

TavloLibplistKeyedArchiver::TavloLibplistKeyedArchiver() : objects_(plist_new_array()) {
  plist_array_append_item(objects_.get(), plist_new_string("$null"));
}

TavloLibplistKeyedArchiver::~TavloLibplistKeyedArchiver() = default;

std::string TavloLibplistKeyedArchiver::archivedDataWithRootObject(const TavloCodable& root) {
  try {
    TavloLibplistKeyedArchiver archiver;
    return archiver.finish(archiver.uidForRecord(root));
  } catch (...) {
    // A record whose encoding throws leaves a half-written tree: no archive is better than
    // a file that silently lacks part of the queue.
    return {};
  }
}

std::string TavloLibplistKeyedArchiver::archivedDataWithRootArray(const std::vector<std::shared_ptr<TavloCodable>>& objects) {
  try {
    TavloLibplistKeyedArchiver archiver;
    return archiver.finish(archiver.uidForArray(objects));
  } catch (...) {
    return {};
  }
}

void TavloLibplistKeyedArchiver::encodeObject(const TavloCodable* object, const std::string& key) {
  const uint64_t uid = object == nullptr ? kNullUID : uidForRecord(*object);
  setInCurrent(key, PlistPtr(plist_new_uid(uid)));
}

void TavloLibplistKeyedArchiver::encodeString(const TavloString& value, const std::string& key) {
  const uint64_t uid = value ? uidForString(*value) : kNullUID;
  setInCurrent(key, PlistPtr(plist_new_uid(uid)));
}

void TavloLibplistKeyedArchiver::encodeDate(const std::optional<TavloDate>& value, const std::string& key) {
  uint64_t uid = kNullUID;
  if (value) {
    PlistPtr date(plist_new_dict());
    plist_dict_set_item(date.get(), "NS.time", plist_new_real(*value - kTavloSecondsFrom1970To2001));
    plist_dict_set_item(date.get(), "$class", plist_new_uid(uidForClass({"NSDate", "NSObject"})));
    uid = appendObject(std::move(date));
  }
  setInCurrent(key, PlistPtr(plist_new_uid(uid)));
}

void TavloLibplistKeyedArchiver::encodeParameters(const std::shared_ptr<const TavloParameters>& value,
                                          const std::string& key) {
  const uint64_t uid = value ? uidForParameters(*value) : kNullUID;
  setInCurrent(key, PlistPtr(plist_new_uid(uid)));
}

void TavloLibplistKeyedArchiver::encodeInteger(int64_t value, const std::string& key) {
  // libplist has no signed constructor; it writes a value with the top bit set as a signed
  // 8-byte integer, which is how NSKeyedArchiver stores a negative one.
  setInCurrent(key, PlistPtr(plist_new_uint(static_cast<uint64_t>(value))));
}

void TavloLibplistKeyedArchiver::encodeBool(bool value, const std::string& key) {
  setInCurrent(key, PlistPtr(plist_new_bool(value ? 1 : 0)));
}

std::string TavloLibplistKeyedArchiver::finish(uint64_t rootUID) {
  PlistPtr archive(plist_new_dict());
  plist_dict_set_item(archive.get(), "$version", plist_new_uint(kArchiveVersion));
  plist_dict_set_item(archive.get(), "$archiver", plist_new_string("NSKeyedArchiver"));
  plist_t top = plist_new_dict();
  plist_dict_set_item(top, "root", plist_new_uid(rootUID));
  plist_dict_set_item(archive.get(), "$top", top);
  plist_dict_set_item(archive.get(), "$objects", objects_.release());

  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(archive.get(), &bytes, &length);
  const std::unique_ptr<char, BinaryFree> owned(bytes);
  if (bytes == nullptr) return {};
  return std::string(bytes, length);
}

uint64_t TavloLibplistKeyedArchiver::appendObject(PlistPtr node) {
  const uint64_t uid = plist_array_get_size(objects_.get());
  plist_array_append_item(objects_.get(), node.release());
  return uid;
}

uint64_t TavloLibplistKeyedArchiver::uidForRecord(const TavloCodable& object) {
  if (const auto known = recordUIDs_.find(&object); known != recordUIDs_.end()) return known->second;

  // The record gets its UID before its fields are written, so a record that refers back
  // to itself (directly or through others) finds that UID instead of recursing forever.
  PlistPtr dictionary(plist_new_dict());
  plist_t record = dictionary.get();  // stays valid: the "$objects" array owns it from here
  const uint64_t uid = appendObject(std::move(dictionary));
  recordUIDs_.emplace(&object, uid);

  plist_t outer = current_;
  current_ = record;
  try {
    object.encodeWithCoder(*this);
  } catch (...) {
    current_ = outer;
    throw;
  }
  current_ = outer;
  plist_dict_set_item(record, "$class", plist_new_uid(uidForClass(object.classChain())));
  return uid;
}

uint64_t TavloLibplistKeyedArchiver::uidForArray(const std::vector<std::shared_ptr<TavloCodable>>& objects) {
  PlistPtr dictionary(plist_new_dict());
  plist_t array = dictionary.get();
  const uint64_t uid = appendObject(std::move(dictionary));

  PlistPtr elements(plist_new_array());
  for (const std::shared_ptr<TavloCodable>& object : objects) {
    const uint64_t element = object ? uidForRecord(*object) : kNullUID;
    plist_array_append_item(elements.get(), plist_new_uid(element));
  }
  plist_dict_set_item(array, "NS.objects", elements.release());
  plist_dict_set_item(array, "$class", plist_new_uid(uidForClass({"NSMutableArray", "NSArray", "NSObject"})));
  return uid;
}

uint64_t TavloLibplistKeyedArchiver::uidForString(const std::string& value) {
  if (const auto known = stringUIDs_.find(value); known != stringUIDs_.end()) return known->second;
  const uint64_t uid = appendObject(PlistPtr(plist_new_string(plistText(value).c_str())));
  stringUIDs_.emplace(value, uid);
  return uid;
}

uint64_t TavloLibplistKeyedArchiver::uidForParameters(const TavloParameters& parameters) {
  // Requests copied from one another hold the same dictionary: write it once.
  if (const auto known = parametersUIDs_.find(&parameters); known != parametersUIDs_.end()) return known->second;

  PlistPtr keys(plist_new_array());
  PlistPtr values(plist_new_array());
  for (const auto& [key, value] : parameters) {
    plist_array_append_item(keys.get(), plist_new_uid(uidForString(key)));
    plist_array_append_item(values.get(), plist_new_uid(uidForString(value)));
  }
  PlistPtr dictionary(plist_new_dict());
  plist_dict_set_item(dictionary.get(), "NS.keys", keys.release());
  plist_dict_set_item(dictionary.get(), "NS.objects", values.release());
  plist_dict_set_item(dictionary.get(), "$class", plist_new_uid(uidForClass({"NSDictionary", "NSObject"})));
  const uint64_t uid = appendObject(std::move(dictionary));
  parametersUIDs_.emplace(&parameters, uid);
  return uid;
}

uint64_t TavloLibplistKeyedArchiver::uidForClass(const std::vector<std::string>& chain) {
  // A record without a chain still needs a class a reader can name.
  const std::vector<std::string> classes = chain.empty() ? std::vector<std::string>{"NSObject"} : chain;
  if (const auto known = classUIDs_.find(classes.front()); known != classUIDs_.end()) return known->second;

  PlistPtr names(plist_new_array());
  for (const std::string& name : classes) plist_array_append_item(names.get(), plist_new_string(plistText(name).c_str()));
  PlistPtr description(plist_new_dict());
  plist_dict_set_item(description.get(), "$classname", plist_new_string(plistText(classes.front()).c_str()));
  plist_dict_set_item(description.get(), "$classes", names.release());
  const uint64_t uid = appendObject(std::move(description));
  classUIDs_.emplace(classes.front(), uid);
  return uid;
}

void TavloLibplistKeyedArchiver::setInCurrent(const std::string& key, PlistPtr node) {
  // Encode calls made outside encodeWithCoder have no record to land in.
  if (current_ == nullptr) return;
  plist_dict_set_item(current_, plistText(archivedKey(key)).c_str(), node.release());
}
