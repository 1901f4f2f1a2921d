# `cpack` in a build directory makes Debian packages from the install components: for a shared
# build, libtavlomessagingsdk1 (the library; its Depends come from dpkg-shlibdeps) and
# libtavlomessagingsdk-dev (headers, CMake package, pkg-config file, the .so link); for a static
# build, the -dev package alone, which then also depends on libcurl's and OpenSSL's -dev packages.
# Configure with -DCMAKE_INSTALL_PREFIX=/usr for packages that install into /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavlo-messaging-sdk)
set(CPACK_PACKAGE_VENDOR "Tavlo")
set(CPACK_PACKAGE_CONTACT "TavloMessagingSDK maintainers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "C++ client of the Tavlo chat service")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})

set(tavlo_runtime_package libtavlomessagingsdk${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${tavlo_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtavlomessagingsdk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)

set(tavlo_dev_depends "libboost${Boost_MAJOR_VERSION}.${Boost_MINOR_VERSION}-dev")
if(NOT TAVLO_JSON_IN_SDK)
    string(APPEND tavlo_dev_depends
           ", libboost-json${Boost_MAJOR_VERSION}.${Boost_MINOR_VERSION}-dev")
endif()
if(BUILD_SHARED_LIBS)
    set(CPACK_COMPONENTS_ALL Runtime Development)
    string(PREPEND tavlo_dev_depends "${tavlo_runtime_package} (= ${PROJECT_VERSION}), ")
else()
    set(CPACK_COMPONENTS_ALL Development)
    string(APPEND tavlo_dev_depends ", libcurl4-openssl-dev, libssl-dev")
endif()
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${tavlo_dev_depends}")
include(CPack)
