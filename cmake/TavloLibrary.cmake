# One static library per folder: every .cpp inside it and in its Internal/ folder, headers beside
# the sources. Internal/ holds what the library's users never see (it is not installed).
# Includes are written from the repository root: #include "Dispatch/SerialQueue.hpp".
function(tavlo_library name)
    file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${name}/*.cpp
                                        ${PROJECT_SOURCE_DIR}/${name}/Internal/*.cpp)
    if(NOT sources)
        set(sources ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
    endif()
    add_library(${name} STATIC ${sources})
    add_library(Tavlo::${name} ALIAS ${name})
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:include>)
    target_link_libraries(${name} PUBLIC ${ARGN})
    target_compile_definitions(${name} PUBLIC BOOST_ASIO_NO_DEPRECATED)
    # Only what TAVLO_EXPORT marks (TavloCoreSDK/TVKExport.hpp) leaves a shared library.
    target_compile_definitions(${name} PRIVATE TAVLO_BUILDING_SDK)
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()
