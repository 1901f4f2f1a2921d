# The public error texts are string tables under TavloMessagingSDK/Resources/<lang>.strings
# ("key" = "text"; lines). They are compiled into the library as one generated source.
file(GLOB tavlo_string_tables CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/TavloMessagingSDK/Resources/*.strings)
set(tavlo_strings_cpp ${PROJECT_BINARY_DIR}/generated/TVKStringTables.cpp)
add_custom_command(
    OUTPUT ${tavlo_strings_cpp}
    COMMAND ${CMAKE_COMMAND} -DOUT=${tavlo_strings_cpp} -DDIR=${PROJECT_SOURCE_DIR}/TavloMessagingSDK/Resources
            -P ${PROJECT_SOURCE_DIR}/cmake/EmbedStrings.cmake
    DEPENDS ${tavlo_string_tables} ${PROJECT_SOURCE_DIR}/cmake/EmbedStrings.cmake
    COMMENT "Embedding the error string tables")
target_sources(TavloMessagingSDKObjects PRIVATE ${tavlo_strings_cpp})
