#include "archive/TavloKeyedUnarchiver.h"
#include "util/TavloCalendar.h"

#include <cmath>
#include <exception>
#include <initializer_list>

namespace {

using Type = TavloBinaryPlistReader::Type;

// Text copied out of an archive by one call. An archive can make many records refer to
// one long string, and each of them would get its own copy.
constexpr std::size_t kMaxDecodedBytes = 2 * TavloKeyedUnarchiver::maxArchiveBytes;
constexpr std::size_t kEntryOverhead = sizeof(std::string);
// Class names are short; a longer one names no class a reader knows.
constexpr uint64_t kMaxClassNameBytes = 1024;

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

TavloKeyedUnarchiver::TavloKeyedUnarchiver(const Reader& reader, const TavloClassTable& classes)
    : reader_(reader), classes_(classes) {}

TavloKeyedUnarchiver::~TavloKeyedUnarchiver() = default;

bool TavloKeyedUnarchiver::openArchive(std::string_view data, Reader& reader, std::string* error) {
  if (data.empty()) {
    setError(error, "empty archive");
    return false;
  }
  if (data.size() > maxArchiveBytes) {
    setError(error, "archive of " + std::to_string(data.size()) + " bytes exceeds the limit of " +
                        std::to_string(maxArchiveBytes) + " bytes; not read");
    return false;
  }
  return reader.open(data, error);
}

// Finds "$objects" and answers the node holding the root's UID, checked to name an object.
TavloKeyedUnarchiver::Index TavloKeyedUnarchiver::rootUIDNode(std::string* error) {
  const Object archive = reader_.object(reader_.topObject());
  if (archive.type != Type::Dictionary) {
    setError(error, "not a keyed archive: the property list is not a dictionary");
    return std::nullopt;
  }
  const Index archiverNode = lookup(archive, "$archiver");
  const TavloString archiver = archiverNode ? reader_.text(reader_.object(*archiverNode)) : std::nullopt;
  if (!archiver) {
    setError(error, "not a keyed archive: no \"$archiver\"");
    return std::nullopt;
  }
  if (*archiver != "NSKeyedArchiver") {
    setError(error, "unsupported archiver \"" + archiver->substr(0, 64) + "\"; only NSKeyedArchiver archives are read");
    return std::nullopt;
  }
  const Index objectsNode = lookup(archive, "$objects");
  objects_ = objectsNode ? reader_.object(*objectsNode) : Object{};
  if (objects_.type != Type::Array) {
    setError(error, "damaged keyed archive: no \"$objects\" array");
    return std::nullopt;
  }
  if (objects_.count > maxArchivedObjects) {
    setError(error, "damaged keyed archive: " + std::to_string(objects_.count) + " archived objects, more than the " +
                        std::to_string(maxArchivedObjects) + " a queue can hold");
    return std::nullopt;
  }
  slots_.resize(objects_.count);
  const Index topNode = lookup(archive, "$top");
  const Object top = topNode ? reader_.object(*topNode) : Object{};
  if (top.type != Type::Dictionary) {
    setError(error, "damaged keyed archive: no \"$top\" dictionary");
    return std::nullopt;
  }
  const Index root = lookup(top, "root");
  const Object rootUID = root ? reader_.object(*root) : Object{};
  if (rootUID.type != Type::UID) {
    setError(error, "damaged keyed archive: no \"root\" in \"$top\"");
    return std::nullopt;
  }
  const uint64_t uid = reader_.uidValue(rootUID);
  if (uid == 0 || uid >= slots_.size()) {
    setError(error, "damaged keyed archive: root UID " + std::to_string(uid) + " is not one of the " +
                        std::to_string(slots_.size()) + " archived objects");
    return std::nullopt;
  }
  return root;
}

std::string TavloKeyedUnarchiver::limitError() const {
  return "damaged keyed archive: reading it takes more than " + std::to_string(maxSteps) + " steps; not read";
}

std::shared_ptr<TavloCodable> TavloKeyedUnarchiver::unarchivedObjectWithData(std::string_view data,
                                                                           const TavloClassTable& classes,
                                                                           std::string* error) {
  try {
    setError(error, {});
    Reader reader;
    if (!openArchive(data, reader, error)) return nullptr;
    TavloKeyedUnarchiver unarchiver(reader, classes);
    const Index root = unarchiver.rootUIDNode(error);
    if (!root) return nullptr;
    std::string why;
    std::shared_ptr<TavloCodable> object = unarchiver.decodeRecordAt(root, &why);
    if (unarchiver.exhausted_) {
      setError(error, unarchiver.limitError());
      return nullptr;
    }
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
    Reader reader;
    if (!openArchive(data, reader, error)) return std::nullopt;
    TavloKeyedUnarchiver unarchiver(reader, classes);
    const Index root = unarchiver.rootUIDNode(error);
    if (!root) return std::nullopt;

    uint64_t rootUID = 0;
    const Object array = unarchiver.archivedObject(root, &rootUID);
    if (!isOneOf(unarchiver.classNameOf(array), {"NSArray", "NSMutableArray"})) {
      setError(error, unarchiver.exhausted_ ? unarchiver.limitError() : "root object is not an array");
      return std::nullopt;
    }
    const Index elementsNode = unarchiver.lookup(array, "NS.objects");
    const Object elements = elementsNode ? reader.object(*elementsNode) : Object{};
    if (elements.type != Type::Array) {
      setError(error, "damaged keyed archive: root array has no \"NS.objects\"");
      return std::nullopt;
    }

    // An element that names the array itself is a cycle like any other.
    unarchiver.slots_[rootUID].state = DecodeState::InProgress;

    std::vector<std::shared_ptr<TavloCodable>> result;
    for (uint64_t i = 0; i < elements.count && unarchiver.charge(1); ++i) {
      if (std::shared_ptr<TavloCodable> element = unarchiver.decodeRecordAt(reader.elementAt(elements, i))) {
        result.push_back(std::move(element));
      }
    }
    if (unarchiver.exhausted_) {
      setError(error, unarchiver.limitError());
      return std::nullopt;
    }
    if (result.size() < elements.count) {
      setError(error, std::to_string(elements.count - result.size()) + " of " + std::to_string(elements.count) +
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

bool TavloKeyedUnarchiver::containsValueForKey(const std::string& key) const { return valueForKey(key).has_value(); }

std::shared_ptr<TavloCodable> TavloKeyedUnarchiver::decodeObject(const std::string& key) {
  return decodeRecordAt(valueForKey(key));
}

TavloString TavloKeyedUnarchiver::decodeString(const std::string& key) {
  return copyText(stringObjectAt(valueForKey(key)), kEntryOverhead);
}

std::optional<TavloDate> TavloKeyedUnarchiver::decodeDate(const std::string& key) {
  const Object date = archivedObject(valueForKey(key));
  if (!isOneOf(classNameOf(date), {"NSDate"})) return std::nullopt;
  const Index timeNode = lookup(date, "NS.time");
  if (!timeNode) return std::nullopt;
  const Object time = reader_.object(*timeNode);
  double seconds = 0;
  if (time.type == Type::Real) {
    seconds = reader_.realValue(time);
  } else if (time.type == Type::Integer) {
    seconds = static_cast<double>(static_cast<int64_t>(reader_.integerBits(time)));
  } else {
    return std::nullopt;
  }
  if (!std::isfinite(seconds)) return std::nullopt;
  return seconds + kTavloSecondsFrom1970To2001;
}

std::shared_ptr<const TavloParameters> TavloKeyedUnarchiver::decodeParameters(const std::string& key) {
  return parametersAt(valueForKey(key));
}

int64_t TavloKeyedUnarchiver::decodeInteger(const std::string& key) {
  const Index node = valueForKey(key);
  if (!node) return 0;
  const Object value = reader_.object(*node);
  if (value.type == Type::Integer) return static_cast<int64_t>(reader_.integerBits(value));
  if (value.type == Type::Boolean) return reader_.boolValue(value) ? 1 : 0;
  if (value.type == Type::Real) {
    const double real = reader_.realValue(value);
    // -2^63 is representable, 2^63 is not: the bounds keep the conversion defined.
    if (std::isfinite(real) && real >= -9223372036854775808.0 && real < 9223372036854775808.0) {
      return static_cast<int64_t>(real);
    }
  }
  return 0;
}

bool TavloKeyedUnarchiver::decodeBool(const std::string& key) {
  const Index node = valueForKey(key);
  if (!node) return false;
  const Object value = reader_.object(*node);
  if (value.type == Type::Boolean) return reader_.boolValue(value);
  if (value.type == Type::Integer) return reader_.integerBits(value) != 0;
  return false;
}

bool TavloKeyedUnarchiver::charge(uint64_t steps) const {
  if (exhausted_ || steps > maxSteps - steps_) {
    exhausted_ = true;
    return false;
  }
  steps_ += steps;
  return true;
}

TavloKeyedUnarchiver::Index TavloKeyedUnarchiver::lookup(const Object& dictionary, std::string_view key) const {
  if (dictionary.type != Type::Dictionary || !charge(dictionary.count + 1)) return std::nullopt;
  return reader_.valueForKey(dictionary, key);
}

TavloKeyedUnarchiver::Index TavloKeyedUnarchiver::valueForKey(const std::string& key) const {
  if (current_.type != Type::Dictionary || !charge(current_.count + 1)) return std::nullopt;
  // NSKeyedArchiver's escape for coder keys that begin with "$" (see the archiver).
  // Decoders mostly read their keys in the order they wrote them: the search goes on
  // from the last key found.
  if (!key.empty() && key.front() == '$') return reader_.valueForKey(current_, "$" + key, &cursor_);
  return reader_.valueForKey(current_, key, &cursor_);
}

// The archived object that the UID at `uidNode` names; Type::Invalid for UID 0 ("$null"),
// a UID out of range, or anything but a UID.
TavloKeyedUnarchiver::Object TavloKeyedUnarchiver::archivedObject(Index uidNode, uint64_t* uid) {
  if (!uidNode || exhausted_) return {};
  const Object node = reader_.object(*uidNode);
  if (node.type != Type::UID) return {};
  const uint64_t value = reader_.uidValue(node);
  if (value == 0 || value >= slots_.size()) return {};
  const Index object = reader_.elementAt(objects_, value);
  if (!object) return {};
  if (uid != nullptr) *uid = value;
  return reader_.object(*object);
}

std::shared_ptr<TavloCodable> TavloKeyedUnarchiver::decodeRecordAt(Index uidNode, std::string* why) {
  uint64_t uid = 0;
  const Object object = archivedObject(uidNode, &uid);
  if (object.type == Type::Invalid) {
    setError(why, "nil or out-of-range UID");
    return nullptr;
  }
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
  const Object outer = current_;
  const uint64_t outerCursor = cursor_;
  current_ = object;
  cursor_ = 0;
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
  cursor_ = outerCursor;

  // `slots_` is not resized while decoding, so `slot` is still the same element.
  slot.state = DecodeState::Done;
  slot.record = record;
  if (!record) setError(why, "the decoder of class \"" + *className + "\" made no object");
  return record;
}

TavloString TavloKeyedUnarchiver::classNameOf(const Object& object) {
  if (object.type != Type::Dictionary || !charge(object.count + 1)) return std::nullopt;
  // Archivers write "$class" after the object's own keys: the search starts at the end.
  uint64_t last = object.count - 1;
  const Object description = archivedObject(reader_.valueForKey(object, "$class", &last));
  if (description.type != Type::Dictionary) return std::nullopt;
  const Index classes = lookup(description, "$classes");
  if (!classes || reader_.object(*classes).type != Type::Array) return std::nullopt;
  const Index nameNode = lookup(description, "$classname");
  if (!nameNode) return std::nullopt;
  const Object name = reader_.object(*nameNode);
  const uint64_t size = reader_.textSizeBound(name);
  if (size > kMaxClassNameBytes || !charge(size)) return std::nullopt;
  return reader_.text(name);
}

// A string archived as a string object, or as an NSString holding one.
TavloKeyedUnarchiver::Object TavloKeyedUnarchiver::stringObjectAt(Index uidNode) {
  const Object object = archivedObject(uidNode);
  if (object.type == Type::String) return object;
  if (!isOneOf(classNameOf(object), {"NSString", "NSMutableString"})) return {};
  const Index text = lookup(object, "NS.string");
  return text ? reader_.object(*text) : Object{};
}

// The text of `string`, counted against the cap before it is copied.
TavloString TavloKeyedUnarchiver::copyText(const Object& string, std::size_t overhead) {
  if (string.type != Type::String) return std::nullopt;
  const uint64_t bound = reader_.textSizeBound(string);
  if (bound > kMaxDecodedBytes || !chargeDecodedBytes(static_cast<std::size_t>(bound) + overhead)) return std::nullopt;
  TavloString text = reader_.text(string);
  decodedBytes_ -= static_cast<std::size_t>(bound) - text->size();  // UTF-16 came out shorter than feared
  return text;
}

std::shared_ptr<const TavloParameters> TavloKeyedUnarchiver::parametersAt(Index uidNode) {
  uint64_t uid = 0;
  const Object dictionary = archivedObject(uidNode, &uid);
  if (dictionary.type == Type::Invalid) return nullptr;
  // Decoded once and shared, like the dictionary every reference names.
  if (const auto known = parameters_.find(uid); known != parameters_.end()) return known->second;

  std::shared_ptr<TavloParameters> parameters;
  if (isOneOf(classNameOf(dictionary), {"NSDictionary", "NSMutableDictionary"})) {
    const Index keysNode = lookup(dictionary, "NS.keys");
    const Index valuesNode = lookup(dictionary, "NS.objects");
    const Object keys = keysNode ? reader_.object(*keysNode) : Object{};
    const Object values = valuesNode ? reader_.object(*valuesNode) : Object{};
    // Keys and values pair up by position; lists of different lengths cannot be trusted.
    if (keys.type == Type::Array && values.type == Type::Array && keys.count == values.count) {
      parameters = std::make_shared<TavloParameters>();
      for (uint64_t i = 0; i < keys.count; ++i) {
        if (!charge(1)) {
          parameters = nullptr;
          break;
        }
        const Object key = stringObjectAt(reader_.elementAt(keys, i));
        const Object value = stringObjectAt(reader_.elementAt(values, i));
        if (key.type == Type::Invalid || value.type == Type::Invalid) continue;
        TavloString keyText = copyText(key, kEntryOverhead);
        TavloString valueText = keyText ? copyText(value, kEntryOverhead) : std::nullopt;
        if (!keyText || !valueText) {
          parameters = nullptr;
          break;
        }
        // Archivers write a dictionary's keys sorted, so the end is the place to look first.
        parameters->insert_or_assign(parameters->end(), std::move(*keyText), std::move(*valueText));
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
