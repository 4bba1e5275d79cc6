#include "request/TavloKeyedUnarchiver.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <initializer_list>

namespace {

// Checks on the binary property list made before libplist sees it. libplist 2.2 parses
// containers recursively, so a file of nested one-element arrays overflows the stack;
// and it copies an object once per reference, so a chain of arrays that each refer twice
// to the next grows to 2^n nodes. A valid archive nests five deep and is parsed into about
// as many nodes as it has references; a queue of 500 requests needs some 150,000.
constexpr std::size_t kMaxPlistNesting = 32;
constexpr uint64_t kMaxPlistNodes = uint64_t{1} << 20;
constexpr uint64_t kMaxPlistTextBytes = 2 * uint64_t{TavloKeyedUnarchiver::maxArchiveBytes};

// Text copied out of an archive by one call. An archive can make many records refer to
// one long string, and each of them would get its own copy.
constexpr std::size_t kMaxDecodedBytes = 2 * TavloKeyedUnarchiver::maxArchiveBytes;
constexpr std::size_t kEntryOverhead = sizeof(std::string);

constexpr std::size_t kTrailerSize = 32;
constexpr std::size_t kHeaderSize = 8;

uint64_t readBigEndian(const unsigned char* bytes, std::size_t width) {
  uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) value = (value << 8) | bytes[i];
  return value;
}

uint64_t saturatingAdd(uint64_t a, uint64_t b, uint64_t cap) { return a > cap - std::min(b, cap) ? cap + 1 : a + b; }

// The shape of a binary property list: where its objects are and which objects each
// container refers to, without building anything.
class BinaryPlistShape {
 public:
  explicit BinaryPlistShape(std::string_view data)
      : bytes_(reinterpret_cast<const unsigned char*>(data.data())), size_(data.size()) {}

  // True if libplist can be given the data; otherwise `error` says what is wrong.
  bool check(std::string* error) {
    if (!readTrailer(error)) return false;
    return walkFromTop(error);
  }

 private:
  struct Container {
    uint64_t refsStart = 0;
    uint64_t refCount = 0;
    uint64_t textBytes = 0;  // what the object itself holds as text or data once parsed
  };
  enum : uint8_t { kUnvisited, kOnPath, kMeasured };
  struct Measure {
    uint32_t nodes = 0;      // nodes in the parsed subtree, saturated past kMaxPlistNodes
    uint32_t textBytes = 0;  // text and data in it, saturated past kMaxPlistTextBytes
    uint8_t height = 0;
    uint8_t state = kUnvisited;
  };
  struct Frame {
    uint64_t object = 0;
    Container contents;
    uint64_t nextRef = 0;
    uint64_t nodes = 1;
    uint64_t textBytes = 0;
    std::size_t height = 1;
  };

  static bool fail(std::string* error, const std::string& why) {
    *error = "damaged binary property list: " + why;
    return false;
  }

  bool readTrailer(std::string* error) {
    if (size_ < kHeaderSize + kTrailerSize) return fail(error, "too short");
    const unsigned char* trailer = bytes_ + size_ - kTrailerSize;
    offsetWidth_ = trailer[6];
    refWidth_ = trailer[7];
    objectCount_ = readBigEndian(trailer + 8, 8);
    top_ = readBigEndian(trailer + 16, 8);
    offsetTable_ = readBigEndian(trailer + 24, 8);
    if (offsetWidth_ < 1 || offsetWidth_ > 8 || refWidth_ < 1 || refWidth_ > 8) return fail(error, "bad field widths");
    if (objectCount_ == 0 || objectCount_ > kMaxPlistNodes) return fail(error, "object count out of range");
    if (top_ >= objectCount_) return fail(error, "top object out of range");
    const uint64_t tableEnd = size_ - kTrailerSize;
    if (offsetTable_ < kHeaderSize || offsetTable_ > tableEnd) return fail(error, "offset table out of range");
    if (objectCount_ > (tableEnd - offsetTable_) / offsetWidth_) return fail(error, "offset table too short");
    return true;
  }

  // The object's entry in the offset table, checked to lie in the object area.
  bool objectOffset(uint64_t object, uint64_t* offset) const {
    *offset = readBigEndian(bytes_ + offsetTable_ + object * offsetWidth_, offsetWidth_);
    return *offset >= kHeaderSize && *offset < offsetTable_;
  }

  // Reads a container's or string's count: the low nibble, or an integer object after it.
  bool readCount(uint64_t* position, unsigned char marker, uint64_t* count) const {
    *count = marker & 0x0F;
    if (*count != 0x0F) return true;
    if (*position >= offsetTable_) return false;
    const unsigned char countMarker = bytes_[(*position)++];
    if ((countMarker & 0xF0) != 0x10 || (countMarker & 0x0F) > 3) return false;
    const std::size_t width = std::size_t{1} << (countMarker & 0x0F);
    if (offsetTable_ - *position < width) return false;
    *count = readBigEndian(bytes_ + *position, width);
    *position += width;
    return true;
  }

  bool describe(uint64_t object, Container* contents, std::string* error) const {
    uint64_t position = 0;
    if (!objectOffset(object, &position)) return fail(error, "object offset out of range");
    const unsigned char marker = bytes_[position++];
    const unsigned kind = marker >> 4;
    uint64_t count = 0;
    switch (kind) {
      case 0x4:  // data
      case 0x5:  // ASCII string
      case 0x6:  // UTF-16 string
      case 0x7: {  // UTF-8 string
        if (!readCount(&position, marker, &count)) return fail(error, "bad length");
        const uint64_t unit = kind == 0x6 ? 2 : 1;
        if (count > (offsetTable_ - position) / unit) return fail(error, "text runs past the object area");
        // UTF-16 comes out as UTF-8: at most three bytes per unit.
        contents->textBytes = kind == 0x6 ? count * 3 : count;
        return true;
      }
      case 0xA:  // array
      case 0xB:  // ordered set
      case 0xC:  // set
      case 0xD: {  // dictionary: keys, then values
        if (!readCount(&position, marker, &count)) return fail(error, "bad count");
        const uint64_t refs = kind == 0xD ? count * 2 : count;
        if (count > offsetTable_ || refs > (offsetTable_ - position) / refWidth_) {
          return fail(error, "container runs past the object area");
        }
        contents->refsStart = position;
        contents->refCount = refs;
        return true;
      }
      default:  // scalars: libplist checks their sizes itself
        return true;
    }
  }

  // Depth-first from the top object, measuring each object once: its parsed node count,
  // its text, its height. A reference back onto the current path is a cycle.
  bool walkFromTop(std::string* error) {
    measures_.assign(objectCount_, Measure{});
    std::vector<Frame> path;
    path.reserve(kMaxPlistNesting + 1);
    if (!enter(top_, &path, error)) return false;

    while (!path.empty()) {
      Frame& frame = path.back();
      if (frame.nextRef < frame.contents.refCount) {
        const uint64_t child =
            readBigEndian(bytes_ + frame.contents.refsStart + frame.nextRef * refWidth_, refWidth_);
        ++frame.nextRef;
        if (child >= objectCount_) return fail(error, "reference out of range");
        const Measure& measured = measures_[child];
        if (measured.state == kOnPath) return fail(error, "objects refer to each other in a cycle");
        if (measured.state == kUnvisited) {
          if (path.size() >= kMaxPlistNesting) return fail(error, "containers nested too deeply");
          if (!enter(child, &path, error)) return false;
          continue;
        }
        if (!add(&frame, measured, error)) return false;
        continue;
      }

      Measure& measure = measures_[frame.object];
      measure.nodes = static_cast<uint32_t>(frame.nodes);
      measure.textBytes = static_cast<uint32_t>(frame.textBytes);
      measure.height = static_cast<uint8_t>(frame.height);
      measure.state = kMeasured;
      const Measure finished = measure;
      path.pop_back();
      if (!path.empty() && !add(&path.back(), finished, error)) return false;
    }
    return true;
  }

  bool enter(uint64_t object, std::vector<Frame>* path, std::string* error) {
    Frame frame;
    frame.object = object;
    if (!describe(object, &frame.contents, error)) return false;
    frame.textBytes = frame.contents.textBytes;
    if (frame.textBytes > kMaxPlistTextBytes) return fail(error, "text too large");
    measures_[object].state = kOnPath;
    path->push_back(frame);
    return true;
  }

  // Adds a measured child to its parent's totals, refusing once the parsed tree would
  // outgrow the limits.
  static bool add(Frame* parent, const Measure& child, std::string* error) {
    parent->nodes = saturatingAdd(parent->nodes, child.nodes, kMaxPlistNodes);
    parent->textBytes = saturatingAdd(parent->textBytes, child.textBytes, kMaxPlistTextBytes);
    parent->height = std::max<std::size_t>(parent->height, std::size_t{child.height} + 1);
    if (parent->nodes > kMaxPlistNodes) return fail(error, "shared objects would expand past the node limit");
    if (parent->textBytes > kMaxPlistTextBytes) return fail(error, "shared text would expand past the size limit");
    if (parent->height > kMaxPlistNesting) return fail(error, "containers nested too deeply");
    return true;
  }

  const unsigned char* bytes_;
  std::size_t size_;
  std::size_t offsetWidth_ = 0;
  std::size_t refWidth_ = 0;
  uint64_t objectCount_ = 0;
  uint64_t top_ = 0;
  uint64_t offsetTable_ = 0;
  std::vector<Measure> measures_;
};

// NSKeyedArchiver's escape for coder keys that begin with "$" (see the archiver).
std::string archivedKey(const std::string& key) { return !key.empty() && key.front() == '$' ? "$" + key : key; }

bool isType(plist_t node, plist_type type) { return node != nullptr && plist_get_node_type(node) == type; }

std::optional<std::string> stringValue(plist_t node) {
  if (!isType(node, PLIST_STRING)) return std::nullopt;
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (text == nullptr) return std::nullopt;
  return std::string(text, length);
}

bool isOneOf(const TavloString& name, std::initializer_list<const char*> names) {
  if (!name) return false;
  for (const char* candidate : names) {
    if (*name == candidate) return true;
  }
  return false;
}

void setError(std::string* error, std::string message) {
  if (error != nullptr) *error = std::move(message);
}

}  // namespace

TavloKeyedUnarchiver::TavloKeyedUnarchiver(PlistPtr archive, const TavloClassTable& classes)
    : archive_(std::move(archive)), classes_(classes) {
  plist_t objects = isType(archive_.get(), PLIST_DICT) ? plist_dict_get_item(archive_.get(), "$objects") : nullptr;
  if (isType(objects, PLIST_ARRAY)) {
    objects_ = objects;
    slots_.resize(plist_array_get_size(objects_));
  }
}

TavloKeyedUnarchiver::~TavloKeyedUnarchiver() = default;

TavloKeyedUnarchiver::PlistPtr TavloKeyedUnarchiver::parseArchive(std::string_view data, std::string* error) {
  std::string why;
  if (data.empty()) {
    why = "empty archive";
  } else if (data.size() > maxArchiveBytes) {
    why = "archive of " + std::to_string(data.size()) + " bytes exceeds the limit of " +
          std::to_string(maxArchiveBytes) + " bytes; not read";
  } else if (data.size() < kHeaderSize || data.substr(0, kHeaderSize) != "bplist00") {
    why = "not a binary property list";
  } else if (BinaryPlistShape(data).check(&why)) {
    plist_t parsed = nullptr;
    plist_from_bin(data.data(), static_cast<uint32_t>(data.size()), &parsed);
    PlistPtr archive(parsed);
    if (archive) return archive;
    why = "damaged binary property list: libplist could not parse it";
  }
  setError(error, std::move(why));
  return nullptr;
}

plist_t TavloKeyedUnarchiver::rootNode(std::string* error) const {
  plist_t archive = archive_.get();
  if (!isType(archive, PLIST_DICT)) {
    setError(error, "not a keyed archive: the property list is not a dictionary");
    return nullptr;
  }
  const std::optional<std::string> archiver = stringValue(plist_dict_get_item(archive, "$archiver"));
  if (!archiver) {
    setError(error, "not a keyed archive: no \"$archiver\"");
    return nullptr;
  }
  if (*archiver != "NSKeyedArchiver") {
    setError(error, "unsupported archiver \"" + *archiver + "\"; only NSKeyedArchiver archives are read");
    return nullptr;
  }
  if (objects_ == nullptr) {
    setError(error, "damaged keyed archive: no \"$objects\" array");
    return nullptr;
  }
  plist_t top = plist_dict_get_item(archive, "$top");
  if (!isType(top, PLIST_DICT)) {
    setError(error, "damaged keyed archive: no \"$top\" dictionary");
    return nullptr;
  }
  plist_t root = plist_dict_get_item(top, "root");
  if (!isType(root, PLIST_UID)) {
    setError(error, "damaged keyed archive: no \"root\" in \"$top\"");
    return nullptr;
  }
  uint64_t uid = 0;
  plist_get_uid_val(root, &uid);
  if (uid == 0 || uid >= slots_.size()) {
    setError(error, "damaged keyed archive: root UID " + std::to_string(uid) + " is not one of the " +
                        std::to_string(slots_.size()) + " archived objects");
    return nullptr;
  }
  return root;
}

std::shared_ptr<TavloCodable> TavloKeyedUnarchiver::unarchivedObjectWithData(std::string_view data,
                                                                           const TavloClassTable& classes,
                                                                           std::string* error) {
  try {
    setError(error, {});
    PlistPtr archive = parseArchive(data, error);
    if (!archive) return nullptr;
    TavloKeyedUnarchiver unarchiver(std::move(archive), classes);
    plist_t root = unarchiver.rootNode(error);
    if (root == nullptr) return nullptr;
    std::string why;
    std::shared_ptr<TavloCodable> object = unarchiver.decodeRecordAt(root, &why);
    if (!object) setError(error, "root object not decoded: " + why);
    return object;
  } catch (const std::exception& exception) {
    setError(error, std::string("archive not read: ") + exception.what());
  } catch (...) {
    setError(error, "archive not read: unknown exception");
  }
  return nullptr;
}

std::optional<std::vector<std::shared_ptr<TavloCodable>>> TavloKeyedUnarchiver::unarchivedArrayWithData(
    std::string_view data, const TavloClassTable& classes, std::string* error) {
  try {
    setError(error, {});
    PlistPtr archive = parseArchive(data, error);
    if (!archive) return std::nullopt;
    TavloKeyedUnarchiver unarchiver(std::move(archive), classes);
    plist_t root = unarchiver.rootNode(error);
    if (root == nullptr) return std::nullopt;

    plist_t array = unarchiver.objectAt(root);
    if (!isOneOf(unarchiver.classNameOf(array), {"NSArray", "NSMutableArray"})) {
      setError(error, "root object is not an array");
      return std::nullopt;
    }
    plist_t elements = plist_dict_get_item(array, "NS.objects");
    if (!isType(elements, PLIST_ARRAY)) {
      setError(error, "damaged keyed archive: root array has no \"NS.objects\"");
      return std::nullopt;
    }

    // An element that names the array itself is a cycle like any other.
    uint64_t rootUID = 0;
    plist_get_uid_val(root, &rootUID);
    unarchiver.slots_[rootUID].state = DecodeState::InProgress;

    const uint32_t count = plist_array_get_size(elements);
    std::vector<std::shared_ptr<TavloCodable>> result;
    result.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      if (std::shared_ptr<TavloCodable> element = unarchiver.decodeRecordAt(plist_array_get_item(elements, i))) {
        result.push_back(std::move(element));
      }
    }
    if (result.size() < count) {
      setError(error, std::to_string(count - result.size()) + " of " + std::to_string(count) +
                          " archived elements could not be decoded and were left out");
    }
    return result;
  } catch (const std::exception& exception) {
    setError(error, std::string("archive not read: ") + exception.what());
  } catch (...) {
    setError(error, "archive not read: unknown exception");
  }
  return std::nullopt;
}

bool TavloKeyedUnarchiver::containsValueForKey(const std::string& key) const { return valueForKey(key) != nullptr; }

std::shared_ptr<TavloCodable> TavloKeyedUnarchiver::decodeObject(const std::string& key) {
  return decodeRecordAt(valueForKey(key));
}

TavloString TavloKeyedUnarchiver::decodeString(const std::string& key) {
  TavloString value = stringAt(valueForKey(key));
  if (value && !chargeDecodedBytes(value->size() + kEntryOverhead)) return std::nullopt;
  return value;
}

std::optional<TavloDate> TavloKeyedUnarchiver::decodeDate(const std::string& key) {
  plist_t date = objectAt(valueForKey(key));
  if (!isOneOf(classNameOf(date), {"NSDate"})) return std::nullopt;
  plist_t time = plist_dict_get_item(date, "NS.time");
  double seconds = 0;
  if (isType(time, PLIST_REAL)) {
    plist_get_real_val(time, &seconds);
  } else if (isType(time, PLIST_UINT)) {
    uint64_t whole = 0;
    plist_get_uint_val(time, &whole);
    seconds = static_cast<double>(static_cast<int64_t>(whole));
  } else {
    return std::nullopt;
  }
  if (!std::isfinite(seconds)) return std::nullopt;
  return seconds + TavloSecondsFrom1970To2001;
}

std::shared_ptr<const TavloParameters> TavloKeyedUnarchiver::decodeParameters(const std::string& key) {
  return parametersAt(valueForKey(key));
}

int64_t TavloKeyedUnarchiver::decodeInteger(const std::string& key) {
  plist_t value = valueForKey(key);
  if (isType(value, PLIST_UINT)) {
    uint64_t bits = 0;
    plist_get_uint_val(value, &bits);
    return static_cast<int64_t>(bits);
  }
  if (isType(value, PLIST_BOOLEAN)) {
    uint8_t flag = 0;
    plist_get_bool_val(value, &flag);
    return flag != 0 ? 1 : 0;
  }
  if (isType(value, PLIST_REAL)) {
    double real = 0;
    plist_get_real_val(value, &real);
    // -2^63 is representable, 2^63 is not: the bounds keep the conversion defined.
    if (std::isfinite(real) && real >= -9223372036854775808.0 && real < 9223372036854775808.0) {
      return static_cast<int64_t>(real);
    }
  }
  return 0;
}

bool TavloKeyedUnarchiver::decodeBool(const std::string& key) {
  plist_t value = valueForKey(key);
  if (isType(value, PLIST_BOOLEAN)) {
    uint8_t flag = 0;
    plist_get_bool_val(value, &flag);
    return flag != 0;
  }
  if (isType(value, PLIST_UINT)) {
    uint64_t number = 0;
    plist_get_uint_val(value, &number);
    return number != 0;
  }
  return false;
}

plist_t TavloKeyedUnarchiver::valueForKey(const std::string& key) const {
  if (!isType(current_, PLIST_DICT)) return nullptr;
  return plist_dict_get_item(current_, archivedKey(key).c_str());
}

plist_t TavloKeyedUnarchiver::objectAt(plist_t uidNode) const {
  if (objects_ == nullptr || !isType(uidNode, PLIST_UID)) return nullptr;
  uint64_t uid = 0;
  plist_get_uid_val(uidNode, &uid);
  if (uid == 0 || uid >= slots_.size()) return nullptr;
  return plist_array_get_item(objects_, static_cast<uint32_t>(uid));
}

std::shared_ptr<TavloCodable> TavloKeyedUnarchiver::decodeRecordAt(plist_t uidNode, std::string* why) {
  plist_t object = objectAt(uidNode);
  if (object == nullptr) {
    setError(why, "nil or out-of-range UID");
    return nullptr;
  }
  uint64_t uid = 0;
  plist_get_uid_val(uidNode, &uid);
  Slot& slot = slots_[uid];
  if (slot.state == DecodeState::Done) {
    if (!slot.record) setError(why, "object " + std::to_string(uid) + " could not be decoded");
    return slot.record;
  }
  if (slot.state == DecodeState::InProgress) {
    setError(why, "object " + std::to_string(uid) + " refers back to itself");
    return nullptr;
  }
  // Refused for depth, the object stays undecoded: a shallower reference may still read it.
  if (depth_ >= maxDepth) {
    setError(why, "records nested deeper than " + std::to_string(maxDepth));
    return nullptr;
  }

  const TavloString className = classNameOf(object);
  const auto decoder = className ? classes_.find(*className) : classes_.end();
  if (decoder == classes_.end() || !decoder->second) {
    setError(why, className ? "class \"" + *className + "\" is not one this reader may create"
                            : "object " + std::to_string(uid) + " has no valid class");
    slot.state = DecodeState::Done;
    return nullptr;
  }

  slot.state = DecodeState::InProgress;
  plist_t outer = current_;
  current_ = object;
  ++depth_;
  std::shared_ptr<TavloCodable> record;
  try {
    record = decoder->second(*this);
  } catch (...) {
    // A decoder that throws yields no record; the rest of the archive is still read.
    record = nullptr;
  }
  --depth_;
  current_ = outer;

  // `slots_` is not resized while decoding, so `slot` is still the same element.
  slot.state = DecodeState::Done;
  slot.record = record;
  if (!record) setError(why, "the decoder of class \"" + *className + "\" made no object");
  return record;
}

TavloString TavloKeyedUnarchiver::classNameOf(plist_t object) const {
  if (!isType(object, PLIST_DICT)) return std::nullopt;
  plist_t description = objectAt(plist_dict_get_item(object, "$class"));
  if (!isType(description, PLIST_DICT)) return std::nullopt;
  if (!isType(plist_dict_get_item(description, "$classes"), PLIST_ARRAY)) return std::nullopt;
  return stringValue(plist_dict_get_item(description, "$classname"));
}

TavloString TavloKeyedUnarchiver::stringAt(plist_t uidNode) const {
  plist_t object = objectAt(uidNode);
  if (isType(object, PLIST_STRING)) return stringValue(object);
  if (isOneOf(classNameOf(object), {"NSString", "NSMutableString"})) {
    return stringValue(plist_dict_get_item(object, "NS.string"));
  }
  return std::nullopt;
}

std::shared_ptr<const TavloParameters> TavloKeyedUnarchiver::parametersAt(plist_t uidNode) {
  plist_t dictionary = objectAt(uidNode);
  if (dictionary == nullptr) return nullptr;
  uint64_t uid = 0;
  plist_get_uid_val(uidNode, &uid);
  // Decoded once and shared, like the dictionary every reference names.
  if (const auto known = parameters_.find(uid); known != parameters_.end()) return known->second;

  std::shared_ptr<TavloParameters> parameters;
  if (isOneOf(classNameOf(dictionary), {"NSDictionary", "NSMutableDictionary"})) {
    plist_t keys = plist_dict_get_item(dictionary, "NS.keys");
    plist_t values = plist_dict_get_item(dictionary, "NS.objects");
    // Keys and values pair up by position; lists of different lengths cannot be trusted.
    if (isType(keys, PLIST_ARRAY) && isType(values, PLIST_ARRAY) &&
        plist_array_get_size(keys) == plist_array_get_size(values)) {
      parameters = std::make_shared<TavloParameters>();
      const uint32_t count = plist_array_get_size(keys);
      for (uint32_t i = 0; i < count; ++i) {
        TavloString key = stringAt(plist_array_get_item(keys, i));
        TavloString value = stringAt(plist_array_get_item(values, i));
        if (!key || !value) continue;
        if (!chargeDecodedBytes(key->size() + value->size() + 2 * kEntryOverhead)) {
          parameters = nullptr;
          break;
        }
        parameters->insert_or_assign(std::move(*key), std::move(*value));
      }
    }
  }
  parameters_.emplace(uid, parameters);
  return parameters;
}

bool TavloKeyedUnarchiver::chargeDecodedBytes(std::size_t bytes) {
  if (bytes > kMaxDecodedBytes - decodedBytes_) {
    decodedBytes_ = kMaxDecodedBytes;
    return false;
  }
  decodedBytes_ += bytes;
  return true;
}
