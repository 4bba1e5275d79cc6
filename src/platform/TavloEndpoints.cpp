#include "tavlo/platform/TavloEndpoints.h"

#include "TavloBuildConfig.h"

TavloEndpoints TavloEndpoints::compiledDefaults() {
  TavloEndpoints endpoints;
  endpoints.authorisation = TAVLO_DEFAULT_AUTHORISATION_ENDPOINT;
  endpoints.audienceCollection = TAVLO_DEFAULT_AUDIENCE_COLLECTION_ENDPOINT;
  endpoints.streamingCollection = TAVLO_DEFAULT_STREAMING_COLLECTION_ENDPOINT;
  endpoints.secondCollection = TAVLO_DEFAULT_SECOND_COLLECTION_ENDPOINT;
  return endpoints;
}

// Paths are appended to these bases with their own leading slash, so a base given as
// "http://127.0.0.1:8080/" would otherwise produce "//m/web/".
TavloEndpoints TavloEndpoints::allAt(const std::string& baseURL) {
  std::string base = baseURL;
  while (!base.empty() && base.back() == '/') base.pop_back();
  TavloEndpoints endpoints;
  endpoints.authorisation = base;
  endpoints.audienceCollection = base;
  endpoints.streamingCollection = base;
  endpoints.secondCollection = base;
  return endpoints;
}

std::string TavloEndpoints::audienceCollectionAddress() const { return audienceCollection + "/m/web/"; }
