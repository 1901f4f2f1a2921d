# Warnings and instrumentation, chosen per compiler. GCC and clang (MinGW-w64 included) share
# their spelling; MSVC has its own, and no ThreadSanitizer or libFuzzer.
if(MSVC)
    add_compile_options(/W4 /permissive- /utf-8)
    if(TAVLO_WERROR)
        add_compile_options(/WX)
    endif()
else()
    add_compile_options(-Wall -Wextra)
    if(TAVLO_WERROR)
        add_compile_options(-Werror)
    endif()
endif()

# The Windows headers must not define min/max, nor pull in what the SDK does not use; Asio needs
# the Windows version it targets (Windows 10).
if(WIN32)
    add_compile_definitions(NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00)
endif()

if(TAVLO_SANITIZE)
    if(MSVC)
        add_compile_options(/fsanitize=address)
    else()
        add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                            -fno-sanitize-recover=undefined)
        add_link_options(-fsanitize=address,undefined)
    endif()
endif()
if((TAVLO_FUZZ OR TAVLO_TSAN) AND MSVC)
    message(FATAL_ERROR "TAVLO_FUZZ and TAVLO_TSAN need GCC or clang")
endif()
if(TAVLO_FUZZ)
    # AddressSanitizer only and light optimisation: the fuzz build compiles every library with
    # clang, and undefined behaviour is already covered by the sanitized test build.
    add_compile_options(-fsanitize=fuzzer-no-link,address -fno-omit-frame-pointer -O1)
    add_link_options(-fsanitize=address)
endif()
if(TAVLO_TSAN)
    # gcc 12 warns that TSan does not model atomic_thread_fence (used inside Boost.Asio);
    # with -Werror that warning would stop the build.
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer
                        $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
    add_link_options(-fsanitize=thread)
endif()
