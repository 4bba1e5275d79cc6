// A small application built against an installed Tavlo, the way an application developer
// builds one: public headers from the prefix, the library through find_package or
// pkg-config. It sends no hit; it proves the headers, the library and its exported
// symbols fit together, and exits 0 only if they do.
#include <cstdio>
#include <cstring>
#include <string>

#include <tavlo/TavloApplication.h>
#include <tavlo/TavloAudienceTagger.h>
#include <tavlo/TavloVersion.h>
#include <tavlo/platform/TavloPlatform.h>

int main() {
  TavloApplicationInfo application;
  application.bundleName = "TavloConsumer";
  TavloPlatform platform = TavloPlatform::linuxDefaults(application);
  platform.endpoints = TavloEndpoints::allAt("http://127.0.0.1:9");  // never used: no hit is measured
  TavloPlatform::install(platform);

  const auto tagger = TavloAudienceTagger::TavloAudienceTaggerWithSerial("consumer-serial", std::nullopt);
  bool ok = tagger != nullptr;
  if (tagger) {
    tagger->setNewLevel1("installed");
    ok = tagger->theNewLevel1() == "installed" && tagger->serial() == "consumer-serial";
  }

  // The version the headers were written for must be the version of the library linked.
  const std::string version = TavloTagger::TavloVersion();
  const char* marker = reinterpret_cast<const char*>(Tavlo_tvOSVersionString);
  ok = ok && version == TavloVersionString && std::strncmp(marker, "@(#)PROGRAM:Tavlo_tvOS", 22) == 0 &&
       Tavlo_tvOSVersionNumber == 1.0;
  std::printf("Tavlo %s, %s", version.c_str(), marker);

  TavloShutdown();
  std::puts(ok ? "consumer: OK" : "consumer: FAILED");
  return ok ? 0 : 1;
}
