// Feeds arbitrary bytes to the queue file's reader, as a damaged or hostile requests.ser
// would: it must neither crash nor hang nor grow without bound, and whatever it makes of
// the bytes must survive being saved and read again, through the agent's save cache too.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "archive/TavloArchiveCache.h"
#include "archive/TavloKeyedArchiver.h"
#include "archive/TavloKeyedUnarchiver.h"
#include "request/TavloRecordClasses.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto queue = TavloKeyedUnarchiver::unarchivedArrayWithData(bytes, TavloRecordClasses(), &error);
  TavloKeyedUnarchiver::unarchivedObjectWithData(bytes, TavloRecordClasses());
  if (!queue) return 0;
  for (const auto& element : *queue) {
    if (!element) __builtin_trap();  // elements that do not decode are left out, never null
  }
  // Records read from damaged bytes hold whatever text they held: saving them must still
  // make a file the reader takes whole.
  const std::string saved = TavloKeyedArchiver::archivedDataWithRootArray(*queue);
  const auto reread = TavloKeyedUnarchiver::unarchivedArrayWithData(saved, TavloRecordClasses(), &error);
  if (saved.empty() || !reread || reread->size() != queue->size()) __builtin_trap();
  // The agent saves through a cache kept between saves, mostly after the head was sent:
  // the bytes are a fresh encoder's all the same.
  TavloArchiveCache cache;
  if (TavloKeyedArchiver::archivedDataWithRootArray(*queue, cache) != saved) __builtin_trap();
  std::vector<std::shared_ptr<TavloCodable>> rest(queue->begin() + (queue->empty() ? 0 : 1), queue->end());
  rest.insert(rest.end(), reread->begin(), reread->end());
  if (TavloKeyedArchiver::archivedDataWithRootArray(rest, cache) != TavloKeyedArchiver::archivedDataWithRootArray(rest)) {
    __builtin_trap();
  }
  return 0;
}
