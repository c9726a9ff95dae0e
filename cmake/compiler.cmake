# What every target of this tree is compiled with. Nothing here reaches a host's own build.

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_compile_definitions(_GNU_SOURCE OPENSSL_API_COMPAT=0x10100000L)
add_compile_options(-Wall -Wextra -Wpedantic -Werror $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local> -Wcast-qual -Wformat=2
                    -fno-omit-frame-pointer)

if(ZTLIB_SANITIZE)
    # Enough for the lines in a report. Full debug information and optimisation take twice as long
    # to compile.
    add_compile_options(-fsanitize=${ZTLIB_SANITIZE} -fno-sanitize-recover=all -O1 -g1)
    add_link_options(-fsanitize=${ZTLIB_SANITIZE})
elseif(ZTLIB_COVERAGE)
    add_compile_options(-g --coverage -fprofile-update=atomic)
    add_link_options(--coverage)
else()
    add_compile_options(-g -fstack-protector-strong -fstack-clash-protection -fcf-protection -fno-plt)
    if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
        add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    endif()
    add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Release")
    string(REPLACE "-O3" "-O2" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")
    string(REPLACE "-O3" "-O2" CMAKE_C_FLAGS_RELEASE "${CMAKE_C_FLAGS_RELEASE}")
endif()
