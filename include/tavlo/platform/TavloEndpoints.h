// Where the library sends hits and authorisation requests.
#pragma once

#include <string>

#include "tavlo/TavloExport.h"

/// Base URLs (scheme and authority, no trailing slash) of the four endpoints. The
/// compiled-in defaults come from the build's configuration; tests and demos replace
/// them, scheme included, to talk to a local server such as "http://127.0.0.1:8080".
struct TAVLO_EXPORT TavloEndpoints {
  std::string authorisation;        ///< where hits are authorised
  std::string audienceCollection;   ///< where audience hits go
  std::string streamingCollection;  ///< where streaming hits go
  std::string secondCollection;     ///< the second collection endpoint

  /// The endpoints this build was configured with.
  static TavloEndpoints compiledDefaults();
  /// All four endpoints at one base URL.
  static TavloEndpoints allAt(const std::string& baseURL);

  /// The default audience collection address: audienceCollection + "/m/web/".
  std::string audienceCollectionAddress() const;
};
