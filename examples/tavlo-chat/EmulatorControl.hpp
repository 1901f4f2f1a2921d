#pragma once

#include <boost/json/value.hpp>
#include <optional>
#include <string>

namespace tavlo::chat {

/// The emulator's control API, which plays the part of an application's own sign-in service:
/// it hands out members' JWTs and fresh ones when they expire. Calls are synchronous and short
/// (a local service, five seconds at most).
class EmulatorControl {
  public:
    EmulatorControl(std::string serviceURL, std::optional<std::string> caFile);

    /// The member's current JWT, or a message saying why there is none.
    struct Answer {
        std::optional<std::string> jwt;
        std::string error;
    };
    Answer memberJWT(const std::string& memberId) const;
    /// The member's current valid JWT for an expired or revoked one.
    Answer refreshedJWT(const std::string& expiredJWT) const;

  private:
    /// The JSON answer of a control route, or an error text (never holding a token).
    struct Reply {
        std::optional<boost::json::value> json;
        std::string error;
    };
    Reply call(const std::string& path, const std::optional<std::string>& body) const;
    static Answer jwtFrom(const Reply& reply);

    std::string serviceURL_;
    std::optional<std::string> caFile_;
};

}  // namespace tavlo::chat
