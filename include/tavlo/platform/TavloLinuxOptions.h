// Deployment choices for the Linux platform: where files go, whom TLS trusts, which proxy.
#pragma once

#include <string>

#include "tavlo/TavloExport.h"

/// What a deployment may choose about the Linux implementations of the seams, for
/// `TavloPlatform::linuxDefaults(application, options)`. Every field left empty keeps the
/// behaviour of `linuxDefaults(application)`, so an application that sets nothing sees no
/// change.
///
/// A service started by systemd (no HOME, or the home of user nobody, which does not
/// exist) sets `dataDirectory` to a folder it owns, such as its StateDirectory.
struct TAVLO_EXPORT TavloLinuxOptions {
  /// The folder that holds the queue ("<application name>/TavloCache/") and the device
  /// identifier ("tavlo/secure-store/"), in place of $XDG_DATA_HOME or ~/.local/share.
  /// Must be an absolute path; a relative one is refused with an ERROR line and the
  /// default folder is used.
  std::string dataDirectory;

  /// The CA certificates that HTTPS servers are verified against: a PEM bundle file, a
  /// directory of hashed certificates (c_rehash), or both. When either is set, these
  /// alone are used and the environment is not read. When both are empty, the
  /// environment decides: CURL_CA_BUNDLE, else SSL_CERT_FILE, names the bundle file, and
  /// SSL_CERT_DIR the directory; with none of them set, libcurl's built-in default
  /// (/etc/ssl/certs/ca-certificates.crt on Debian) is used.
  ///@{
  std::string caBundleFile;
  std::string caBundleDirectory;
  ///@}

  /// The proxy every request goes through ("http://proxy.local:3128",
  /// "socks5h://10.0.0.1"), whatever the environment says. Empty: the environment's
  /// http_proxy, https_proxy and no_proxy, as libcurl reads them. no_proxy still applies
  /// to this proxy.
  std::string proxy;
};
