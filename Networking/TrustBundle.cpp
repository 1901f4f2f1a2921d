#include "Networking/TrustBundle.hpp"

#include <fstream>
#include <optional>
#include <sstream>

namespace tavlo::net {
namespace {

std::optional<std::string> readFile(const char* path) {
    if (!path) return std::nullopt;
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    std::ostringstream contents;
    contents << file.rdbuf();
    if (file.bad()) return std::nullopt;
    return std::move(contents).str();
}

/// The PEM bundle libcurl trusts by default, read once.
const std::string& systemBundle() {
    // Deliberately never destroyed: requests may still be built while statics are torn down.
    static const auto* bundle = new std::string(
        readFile(curl_version_info(CURLVERSION_NOW)->cainfo).value_or(std::string()));
    return *bundle;
}

}  // namespace

std::shared_ptr<const TrustBundle> TrustBundle::withExtraFile(const std::string& extraFile) {
    auto extra = readFile(extraFile.c_str());
    if (!extra) return std::make_shared<TrustBundle>(extraFile, std::string(), false);
    return std::make_shared<TrustBundle>(extraFile, systemBundle() + "\n" + *extra, true);
}

CURLcode TrustBundle::apply(CURL* handle) const {
    if (!readable_) return curl_easy_setopt(handle, CURLOPT_CAINFO, extraFile_.c_str());
    curl_blob blob{const_cast<char*>(pem_.data()), pem_.size(), CURL_BLOB_COPY};
    return curl_easy_setopt(handle, CURLOPT_CAINFO_BLOB, &blob);
}

}  // namespace tavlo::net
