// Boost.JSON compiled into the SDK, for builds whose standard library is not the one the
// system's Boost.JSON binary was built for (libc++ on a libstdc++ system). The build defines
// TAVLO_JSON_IN_SDK then; otherwise the SDK links the system's Boost.JSON and this file is empty.
//
// Applications use boost::json::value through the SDK's interface, so a shared SDK exports this
// copy: with libc++, the application takes its Boost.JSON from the SDK.
#if defined(TAVLO_JSON_IN_SDK)
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif
#include <boost/json/src.hpp>
#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#endif
