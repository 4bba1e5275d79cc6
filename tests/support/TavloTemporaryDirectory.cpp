#include "support/TavloTemporaryDirectory.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

TavloTemporaryDirectory::TavloTemporaryDirectory() {
  std::string pattern = "/tmp/tavlo-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot make a temporary folder");
  }
  folder = buffer.data();
}

TavloTemporaryDirectory::~TavloTemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

const std::string& TavloTemporaryDirectory::path() const { return folder; }

std::string TavloTemporaryDirectory::pathFor(const std::string& relative) const { return folder + "/" + relative; }

void TavloTemporaryDirectory::writeFile(const std::string& relative, const std::string& contents) const {
  const std::filesystem::path target = pathFor(relative);
  std::filesystem::create_directories(target.parent_path());
  std::ofstream file(target, std::ios::binary | std::ios::trunc);
  file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  file.close();
  if (!file) throw std::system_error(EIO, std::generic_category(), "cannot write " + target.string());
}
