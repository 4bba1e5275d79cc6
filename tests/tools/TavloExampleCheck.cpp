// tavlo_example_check EXAMPLE_BINARY [HIT_COUNT USER_AGENT]: runs an example against an
// in-process server. Its hits (by default the audience example's 3) must carry its customer
// data and user agent, and those with a rank ("cmsRK", streaming hits) arrive ranked 1, 2, ...
// Against a server answering 404, the example must exit with a failure.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/TavloTemporaryDirectory.h"
#include "TavloLocalServer.h"
#include "tavlo/TavloVersion.h"

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) return 2;
  const int expectedHits = argc == 4 ? std::atoi(argv[2]) : 3;
  const std::string userAgent =
      argc == 4 ? argv[3] : std::string("TavloAudienceExample/1.0 Tavlo SDK v") + TavloVersionString + " apple tv";
  TavloTemporaryDirectory home;
  setenv("XDG_DATA_HOME", home.path().c_str(), 1);  // the example's queue file and device id go here
  TavloLocalServer server;
  server.handle("/", [&](const TavloLocalServerRequest&) {
    return TavloLocalServerResponse::with(200, "access=full|host=" + server.baseURL() + "/m/web/|cmsVI=1");
  });
  server.respond("/m/web/", 200, "OK");

  if (std::system(("'" + std::string(argv[1]) + "' " + server.baseURL()).c_str()) != 0) {
    std::fprintf(stderr, "FAIL: %s did not start, or did not report its hits sent\n", argv[1]);
    return 1;
  }
  int hits = 0;
  for (const auto& request : server.requests()) {
    if (request.path != "/m/web/example-serial") continue;
    const size_t rank = request.query.find("cmsRK=");
    if (request.query.find("crmid=viewer-42") == std::string::npos || request.header("User-Agent") != userAgent ||
        (rank != std::string::npos && std::atoi(request.query.c_str() + rank + 6) != hits + 1)) {
      std::fprintf(stderr, "FAIL: unexpected hit %s\n", request.target.c_str());
      return 1;
    }
    ++hits;
  }
  std::printf("%d of the %d hits expected arrived\n", hits, expectedHits);
  if (hits != expectedHits) return 1;

  // A collection server that answers 404 takes the hits too, but the example must not
  // call that a success.
  TavloTemporaryDirectory again;
  setenv("XDG_DATA_HOME", again.path().c_str(), 1);
  server.respond("/m/web/", 404, "Not Found");
  if (std::system(("'" + std::string(argv[1]) + "' " + server.baseURL() + " >/dev/null").c_str()) == 0) {
    std::fprintf(stderr, "FAIL: %s reported success against a server answering 404\n", argv[1]);
    return 1;
  }
  return 0;
}
