#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

namespace tavlo::net {

/// The certificate authorities a manager trusts on top of the system's.
///
/// libcurl's CURLOPT_CAINFO *replaces* the default bundle, so pointing it at a test server's
/// certificate would stop trusting everything else. Instead the system bundle that libcurl was
/// built with and the extra file are joined into one PEM blob given as CURLOPT_CAINFO_BLOB; the
/// system's hashed certificate directory (CURLOPT_CAPATH) stays in effect beside it.
class TrustBundle {
  public:
    /// Reads `extraFile` now. When it cannot be read, the bundle points libcurl at the file itself,
    /// so that HTTPS fails with CURLE_SSL_CACERT_BADFILE instead of trusting something else.
    static std::shared_ptr<const TrustBundle> withExtraFile(const std::string& extraFile);

    /// Installs the bundle on an easy handle.
    CURLcode apply(CURL* handle) const;

    TrustBundle(std::string extraFile, std::string pem, bool readable)
        : extraFile_(std::move(extraFile)), pem_(std::move(pem)), readable_(readable) {}

  private:
    const std::string extraFile_;
    const std::string pem_;
    const bool readable_;
};

}  // namespace tavlo::net
