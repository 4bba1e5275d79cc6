#include "support/TavloArchiveTestKit.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include <plist/plist.h>

#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"

std::shared_ptr<TavloCodable> TavloRoundTripThroughFile(const TavloCodable& record) {
  char folderTemplate[] = "/tmp/tavlo-archive-XXXXXX";
  if (mkdtemp(folderTemplate) == nullptr) return nullptr;
  const std::filesystem::path folder(folderTemplate);
  const std::filesystem::path file = folder / "record.ser";
  {
    std::ofstream out(file, std::ios::binary);
    const std::string data = TavloKeyedArchiver::archivedDataWithRootObject(record);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
  }
  std::ifstream in(file, std::ios::binary);
  const std::string read((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::filesystem::remove_all(folder);
  return TavloKeyedUnarchiver::unarchivedObjectWithData(read, TavloRecordClasses());
}

namespace {
std::string stringOf(plist_t node) {
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return {};
  char* value = nullptr;
  plist_get_string_val(node, &value);
  std::string result = value ? value : "";
  free(value);
  return result;
}

plist_t dereference(plist_t objects, plist_t uid) {
  if (uid == nullptr || plist_get_node_type(uid) != PLIST_UID) return nullptr;
  uint64_t index = 0;
  plist_get_uid_val(uid, &index);
  return index < plist_array_get_size(objects) ? plist_array_get_item(objects, static_cast<uint32_t>(index)) : nullptr;
}
}  // namespace

std::string TavloArchivedKeysOfClass(const std::string& data, const std::string& className) {
  plist_t root = nullptr;
  plist_from_bin(data.data(), static_cast<uint32_t>(data.size()), &root);
  if (root == nullptr) return {};
  std::string result;
  plist_t objects = plist_dict_get_item(root, "$objects");
  const uint32_t count = objects ? plist_array_get_size(objects) : 0;
  for (uint32_t i = 0; i < count && result.empty(); ++i) {
    plist_t object = plist_array_get_item(objects, i);
    if (plist_get_node_type(object) != PLIST_DICT) continue;
    plist_t classInfo = dereference(objects, plist_dict_get_item(object, "$class"));
    if (classInfo == nullptr || stringOf(plist_dict_get_item(classInfo, "$classname")) != className) continue;
    std::set<std::string> keys;
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(object, &it);
    for (;;) {
      char* key = nullptr;
      plist_t value = nullptr;
      plist_dict_next_item(object, it, &key, &value);
      if (key == nullptr) break;
      if (std::string(key) != "$class") keys.insert(key);
      free(key);
    }
    free(it);
    for (const std::string& key : keys) result += (result.empty() ? "" : ",") + key;
  }
  plist_free(root);
  return result;
}
