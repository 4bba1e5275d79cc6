#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <map>

#include "linux/TavloLinuxDeviceInfo.h"
#include "support/TavloTemporaryDirectory.h"

namespace {

using FakeFiles = std::map<std::string, std::string>;

const std::string deviceTreeModel = "proc/device-tree/model";
const std::string dmiProductName = "sys/class/dmi/id/product_name";
const std::string etcOSRelease = "etc/os-release";
const std::string usrLibOSRelease = "usr/lib/os-release";

std::string kernelRelease() {
  struct utsname names {};
  return uname(&names) == 0 ? names.release : "";
}

TavloApplicationInfo withModel(TavloString model) {
  TavloApplicationInfo application;
  application.model = std::move(model);
  return application;
}

TavloApplicationInfo withSystemVersion(TavloString version) {
  TavloApplicationInfo application;
  application.systemVersion = std::move(version);
  return application;
}

class FakeRoot {
 public:
  explicit FakeRoot(const FakeFiles& files) {
    for (const auto& [path, contents] : files) directory.writeFile(path, contents);
  }
  const std::string& path() const { return directory.path(); }
  TavloTemporaryDirectory directory;
};

}  // namespace

TEST(TavloLinuxDeviceInfoTest, ModelComesFromTheApplicationThenDeviceTreeThenDmiThenLinux) {
  struct Case {
    const char* name;
    TavloApplicationInfo application;
    FakeFiles files;
    std::string expected;
  };
  const Case cases[] = {
      {"device tree with its NUL", {}, {{deviceTreeModel, std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31)}},
       "Raspberry Pi 4 Model B Rev 1.4"},
      {"device tree with trailing blanks and NULs", {}, {{deviceTreeModel, std::string("Amlogic S905X4 \n\0\0", 18)}},
       "Amlogic S905X4"},
      {"device tree listing several names", {}, {{deviceTreeModel, std::string("Box One\0Box Family\0", 19)}},
       "Box One"},
      {"device tree wins over DMI", {}, {{deviceTreeModel, "ARM Box"}, {dmiProductName, "PC\n"}}, "ARM Box"},
      {"DMI with its line feed", {}, {{dmiProductName, "OptiPlex 7070\n"}}, "OptiPlex 7070"},
      {"blank device tree falls to DMI", {}, {{deviceTreeModel, std::string(" \n\0", 3)}, {dmiProductName, "NUC"}},
       "NUC"},
      {"oversized device tree falls to DMI", {}, {{deviceTreeModel, std::string(8192, 'M')}, {dmiProductName, "NUC"}},
       "NUC"},
      {"device tree folder instead of file", {}, {{deviceTreeModel + "/nested", "x"}, {dmiProductName, "NUC"}}, "NUC"},
      {"blank DMI", {}, {{dmiProductName, "  \n"}}, "Linux"},
      {"nothing to read", {}, {}, "Linux"},
      {"application's model wins", withModel("Living Room Box"), {{deviceTreeModel, "ARM Box"}}, "Living Room Box"},
      {"empty application model falls back", withModel(""), {{deviceTreeModel, "ARM Box"}}, "ARM Box"},
  };
  for (const Case& c : cases) {
    FakeRoot root(c.files);
    EXPECT_EQ(TavloLinuxDeviceInfo(c.application, root.path()).model(), c.expected) << c.name;
  }
}

TEST(TavloLinuxDeviceInfoTest, SystemVersionComesFromTheApplicationThenOSReleaseThenTheKernel) {
  const std::string kernel = kernelRelease();
  ASSERT_FALSE(kernel.empty());
  struct Case {
    const char* name;
    TavloApplicationInfo application;
    FakeFiles files;
    std::string expected;
  };
  const Case cases[] = {
      {"double quotes", {}, {{etcOSRelease, "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n"}}, "12"},
      {"bare value", {}, {{etcOSRelease, "ID=ubuntu\nVERSION_ID=22.04\n"}}, "22.04"},
      {"single quotes", {}, {{etcOSRelease, "VERSION_ID='3.18'\n"}}, "3.18"},
      {"escaped quote inside", {}, {{etcOSRelease, "VERSION_ID=\"1\\\"2\"\n"}}, "1\"2"},
      {"comments and similar keys ignored", {},
       {{etcOSRelease, "# VERSION_ID=0\nVERSION_IDX=9\nVERSION=\"12 (bookworm)\"\n  VERSION_ID=12\n"}}, "12"},
      {"last of repeated keys", {}, {{etcOSRelease, "VERSION_ID=1\nVERSION_ID=2\n"}}, "2"},
      {"no final line feed", {}, {{etcOSRelease, "VERSION_ID=7"}}, "7"},
      {"empty value falls to the kernel", {}, {{etcOSRelease, "VERSION_ID=\"\"\n"}}, kernel},
      {"rolling release without one", {}, {{etcOSRelease, "PRETTY_NAME=\"Debian GNU/Linux trixie/sid\"\n"}}, kernel},
      {"binary garbage", {}, {{etcOSRelease, std::string("\0\xff\x01=\n\n=", 7)}}, kernel},
      {"standard fallback file", {}, {{usrLibOSRelease, "VERSION_ID=\"40\"\n"}}, "40"},
      {"/etc wins over the fallback file", {}, {{etcOSRelease, "VERSION_ID=12"}, {usrLibOSRelease, "VERSION_ID=40"}},
       "12"},
      {"nothing to read", {}, {}, kernel},
      {"application's version wins", withSystemVersion("5.0"), {{etcOSRelease, "VERSION_ID=12"}}, "5.0"},
      {"empty application version falls back", withSystemVersion(""), {{etcOSRelease, "VERSION_ID=12"}}, "12"},
  };
  for (const Case& c : cases) {
    FakeRoot root(c.files);
    EXPECT_EQ(TavloLinuxDeviceInfo(c.application, root.path()).systemVersion(), c.expected) << c.name;
  }
}

TEST(TavloLinuxDeviceInfoTest, TelevisionDefaultsUnlessTheApplicationSaysOtherwise) {
  FakeRoot root({});
  TavloLinuxDeviceInfo defaults({}, root.path());
  EXPECT_EQ(defaults.userInterfaceIdiom(), std::optional<int32_t>(TavloUserInterfaceIdiomTV));
  const auto screen = defaults.mainScreen();
  ASSERT_TRUE(screen.has_value());
  EXPECT_EQ(screen->width, 1920);
  EXPECT_EQ(screen->height, 1080);
  EXPECT_EQ(screen->scale, 1);
  EXPECT_FALSE(screen->nativeScale.has_value());
  EXPECT_EQ(defaults.bundleName(), std::nullopt) << "the bundle has no fallback";
  EXPECT_EQ(defaults.bundleVersion(), std::nullopt);

  TavloApplicationInfo application;
  application.bundleName = "Replay";
  application.bundleVersion = "";
  application.userInterfaceIdiom = TavloUserInterfaceIdiomPad;
  application.screen = TavloScreen{3840, 2160, 2, 2.5};
  TavloLinuxDeviceInfo given(application, root.path());
  EXPECT_EQ(given.userInterfaceIdiom(), std::optional<int32_t>(TavloUserInterfaceIdiomPad));
  EXPECT_EQ(given.mainScreen()->width, 3840);
  EXPECT_EQ(given.mainScreen()->nativeScale, std::optional<double>(2.5));
  EXPECT_EQ(given.bundleName(), TavloString("Replay"));
  EXPECT_EQ(given.bundleVersion(), TavloString("")) << "an empty version is the application's to give";
}

TEST(TavloLinuxDeviceInfoTest, FilesAreReadOnceAtConstruction) {
  FakeRoot root({{deviceTreeModel, "Before"}, {etcOSRelease, "VERSION_ID=1"}});
  TavloLinuxDeviceInfo info({}, root.path());
  root.directory.writeFile(deviceTreeModel, "After");
  root.directory.writeFile(etcOSRelease, "VERSION_ID=2");
  EXPECT_EQ(info.model(), "Before");
  EXPECT_EQ(info.systemVersion(), "1");
}

TEST(TavloLinuxDeviceInfoTest, RealSystemGivesSomeModelAndVersion) {
  TavloLinuxDeviceInfo info({});
  EXPECT_FALSE(info.model().empty());
  EXPECT_FALSE(info.systemVersion().empty());
}
