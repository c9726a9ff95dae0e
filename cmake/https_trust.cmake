# zt_https_trust_source(source root intermediate_1 intermediate_2 fingerprint): a rule that makes
# the source in which the HTTPS client finds what it trusts (ztlib/network/https_trust.hpp).
#
#   root, intermediate_*   files with a certificate each, PEM
#   fingerprint            file with the SHA-1 of the server's certificate, 40 hexadecimal digits,
#                          as "openssl x509 -noout -fingerprint -sha1" prints it or bare
#
# Run as a script (cmake -D... -P), this file is what the rule calls.

if(NOT CMAKE_SCRIPT_MODE_FILE)
    set(ZT_HTTPS_TRUST_SCRIPT ${CMAKE_CURRENT_LIST_FILE})
    function(zt_https_trust_source source root intermediate_1 intermediate_2 fingerprint)
        add_custom_command(OUTPUT ${source}
            COMMAND ${CMAKE_COMMAND}
                -D "SOURCE=${source}"
                -D "CERTIFICATES=${root}$<SEMICOLON>${intermediate_1}$<SEMICOLON>${intermediate_2}"
                -D "FINGERPRINT=${fingerprint}"
                -P "${ZT_HTTPS_TRUST_SCRIPT}"
            DEPENDS ${root} ${intermediate_1} ${intermediate_2} ${fingerprint}
                    ${ZT_HTTPS_TRUST_SCRIPT}
            COMMENT "Compiling in the HTTPS trust of ${root}"
            VERBATIM)
    endfunction()
    return()
endif()

# The first certificate of a file, as a string literal for each line.
function(read_certificate path literals)
    file(READ ${path} text)
    set(begin "-----BEGIN CERTIFICATE-----")
    set(end "-----END CERTIFICATE-----")
    if(NOT text MATCHES "${begin}[A-Za-z0-9+/= \t\r\n]+${end}")
        message(FATAL_ERROR "HTTPS trust: ${path} has no certificate in PEM form")
    endif()
    string(REPLACE "\r" "" text "${CMAKE_MATCH_0}")
    string(REPLACE "\n" "\\n\"\n         \"" text "${text}")
    set(${literals} "\"${text}\\n\"" PARENT_SCOPE)
endfunction()

function(read_fingerprint path bytes)
    file(READ ${path} text)
    string(FIND "${text}" "=" equals)
    if(NOT equals EQUAL -1)
        math(EXPR digits "${equals} + 1")
        string(SUBSTRING "${text}" ${digits} -1 text)
    endif()
    string(REGEX REPLACE "[: \t\r\n]" "" text "${text}")
    string(LENGTH "${text}" length)
    if(NOT length EQUAL 40 OR NOT text MATCHES "^[0-9A-Fa-f]+$")
        message(FATAL_ERROR
            "HTTPS trust: ${path} has no SHA-1 fingerprint of 40 hexadecimal digits")
    endif()
    string(REGEX REPLACE "(..)" "0x\\1, " text "${text}")
    string(REGEX REPLACE ", $" "" text "${text}")
    set(${bytes} "${text}" PARENT_SCOPE)
endfunction()

set(table "")
foreach(path IN LISTS CERTIFICATES)
    read_certificate(${path} literals)
    string(APPEND table "         ${literals},\n")
endforeach()
read_fingerprint(${FINGERPRINT} bytes)
file(WRITE ${SOURCE} "// Made by cmake/https_trust.cmake.

#include <ztlib/network/https_trust.hpp>

namespace {

constexpr zt::HttpsTrust kTrust = {
    .certificates = {
${table}    },
    .fingerprint = {${bytes}},
};

}  // namespace

const zt::HttpsTrust& zt::https_trust() { return kTrust; }
")
