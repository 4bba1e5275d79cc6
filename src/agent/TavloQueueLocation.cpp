#include "agent/TavloQueueLocation.h"

std::string TavloQueueApplicationFolder(const TavloString& applicationName) {
  std::string name = applicationName.value_or("");
  for (char& c : name) {
    if (c == '/' || static_cast<unsigned char>(c) < 0x20) c = '_';
  }
  if (name.empty() || name == "." || name == "..") name = "unnamed-application";
  return name;
}

std::string TavloQueueFilePath(const std::string& dataDirectory, const TavloString& applicationName) {
  return dataDirectory + "/" + TavloQueueApplicationFolder(applicationName) + "/TavloCache/requests.ser";
}
