#include "linux/TavloLinuxDeviceInfo.h"

#include <sys/utsname.h>

#include <sstream>

#include "linux/TavloPosixFileSystem.h"

namespace {

// Model names and version lines are short; a file larger than this is not one of them.
constexpr std::size_t maxFactBytes = 4096;

bool isTrailingJunk(char c) { return c == '\0' || c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::string trimmed(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && isTrailingJunk(text[begin])) ++begin;
  while (end > begin && isTrailingJunk(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

std::string readFact(const std::string& path) {
  std::string contents;
  if (TavloPosixFileSystem().readFile(path, contents, maxFactBytes)) return {};
  return contents;
}

bool isGiven(const TavloString& value) { return value.has_value() && !value->empty(); }

// The kernel's NUL-terminated device-tree strings and the DMI file's line feed both end
// up trimmed; a device tree may list several NUL-separated names, the first is the model.
std::string modelFrom(const TavloApplicationInfo& application, const std::string& root) {
  if (isGiven(application.model)) return *application.model;
  std::string deviceTree = readFact(root + "/proc/device-tree/model");
  deviceTree = trimmed(deviceTree.substr(0, deviceTree.find('\0')));
  if (!deviceTree.empty()) return deviceTree;
  const std::string dmi = trimmed(readFact(root + "/sys/class/dmi/id/product_name"));
  if (!dmi.empty()) return dmi;
  return "Linux";
}

std::string kernelRelease() {
  struct utsname names {};
  if (uname(&names) != 0) return {};
  return names.release;
}

std::string systemVersionFrom(const TavloApplicationInfo& application, const std::string& root) {
  if (isGiven(application.systemVersion)) return *application.systemVersion;
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    if (auto version = TavloLinuxDeviceInfo::versionIdFromOSRelease(readFact(root + path))) return *version;
  }
  return kernelRelease();
}

// os-release values are shell-style: bare, in double quotes (where a backslash escapes
// the next character) or in single quotes.
std::string unquoted(const std::string& value) {
  if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'') return value.substr(1, value.size() - 2);
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    std::string result;
    for (size_t i = 1; i + 1 < value.size(); ++i) {
      if (value[i] == '\\' && i + 2 < value.size()) ++i;
      result.push_back(value[i]);
    }
    return result;
  }
  return value;
}

}  // namespace

TavloString TavloLinuxDeviceInfo::versionIdFromOSRelease(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  TavloString found;
  // When a key repeats, the shell that os-release is written for keeps the last value.
  while (std::getline(lines, line)) {
    line = trimmed(line);
    static constexpr std::string_view key = "VERSION_ID=";
    if (line.compare(0, key.size(), key) != 0) continue;
    found = trimmed(unquoted(line.substr(key.size())));
  }
  if (found && found->empty()) return std::nullopt;
  return found;
}

TavloLinuxDeviceInfo::TavloLinuxDeviceInfo(TavloApplicationInfo application, const std::string& fileSystemRoot)
    : application(std::move(application)),
      resolvedModel(modelFrom(this->application, fileSystemRoot)),
      resolvedSystemVersion(systemVersionFrom(this->application, fileSystemRoot)) {}

std::string TavloLinuxDeviceInfo::model() { return resolvedModel; }

std::string TavloLinuxDeviceInfo::systemVersion() { return resolvedSystemVersion; }

std::optional<int32_t> TavloLinuxDeviceInfo::userInterfaceIdiom() {
  return application.userInterfaceIdiom.value_or(TavloUserInterfaceIdiomTV);
}

std::optional<TavloScreen> TavloLinuxDeviceInfo::mainScreen() {
  if (application.screen) return application.screen;
  TavloScreen screen;
  screen.width = 1920;
  screen.height = 1080;
  screen.scale = 1;
  return screen;
}

TavloString TavloLinuxDeviceInfo::bundleName() { return application.bundleName; }

TavloString TavloLinuxDeviceInfo::bundleVersion() { return application.bundleVersion; }
