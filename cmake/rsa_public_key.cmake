# Reads an RSA-3072 public key in PEM (SubjectPublicKeyInfo). Done in CMake, so that a build that is given a
# key needs no openssl, which a Windows machine seldom has.

# Decodes the base64 `text` (no blanks) into hexadecimal digits in `out`.
function(talvex_decode_base64 text out)
  set(alphabet ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
  string(REGEX MATCHALL "...." groups "${text}")
  set(hex "")
  foreach(group IN LISTS groups)
    set(bits 1)  # a leading one keeps the zeros after it
    foreach(place RANGE 3)
      string(SUBSTRING "${group}" ${place} 1 letter)
      if(letter STREQUAL "=")
        set(value 0)
      else()
        string(FIND "${alphabet}" "${letter}" value)
      endif()
      math(EXPR bits "${bits} * 64 + ${value}" OUTPUT_FORMAT HEXADECIMAL)
    endforeach()
    string(SUBSTRING "${bits}" 3 6 digits)
    string(APPEND hex "${digits}")
  endforeach()
  # Each "=" stands for a byte that the last group lacks.
  if(text MATCHES "==$")
    string(REGEX REPLACE "....$" "" hex "${hex}")
  elseif(text MATCHES "=$")
    string(REGEX REPLACE "..$" "" hex "${hex}")
  endif()
  set(${out} "${hex}" PARENT_SCOPE)
endfunction()

# Reads the public key in the file `pem` and sets `out_modulus` (768 hexadecimal digits) and `out_exponent`
# (6). Ends the configuration with an error if the file holds anything else.
function(talvex_read_rsa3072_public_key pem out_modulus out_exponent)
  if(NOT EXISTS "${pem}" OR IS_DIRECTORY "${pem}")
    message(FATAL_ERROR "TALVEX_UPDATE_PUBLIC_KEY: the public key file ${pem} does not exist.")
  endif()
  file(READ "${pem}" text)
  string(REGEX REPLACE "[ \t\r\n]" "" text "${text}")
  if(text MATCHES "PRIVATEKEY-----")
    message(FATAL_ERROR "TALVEX_UPDATE_PUBLIC_KEY: ${pem} holds a private key; give the build the public key only.")
  endif()
  if(NOT text MATCHES "^-----BEGINPUBLICKEY-----([A-Za-z0-9+/]+=?=?)-----ENDPUBLICKEY-----$")
    message(FATAL_ERROR "TALVEX_UPDATE_PUBLIC_KEY: ${pem} is not one public key in PEM (\"BEGIN PUBLIC KEY\").")
  endif()
  talvex_decode_base64("${CMAKE_MATCH_1}" der)

  # SubjectPublicKeyInfo: SEQUENCE { SEQUENCE { rsaEncryption, NULL }, BIT STRING { SEQUENCE { modulus,
  # exponent } } }. A modulus of 3072 bits takes 385 bytes, because its highest bit requires a leading zero.
  if(NOT der MATCHES "^30[0-9a-f]+300d06092a864886f70d0101010500")
    message(FATAL_ERROR "TALVEX_UPDATE_PUBLIC_KEY: the key in ${pem} is not an RSA key.")
  endif()
  if(NOT der MATCHES "^3082....300d06092a864886f70d01010105000382....003082....0282018100([89a-f].*)$")
    message(FATAL_ERROR "TALVEX_UPDATE_PUBLIC_KEY: the RSA key in ${pem} does not have 3072 bits.")
  endif()
  set(integers "${CMAKE_MATCH_1}")
  string(LENGTH "${integers}" length)
  if(length LESS 768)
    message(FATAL_ERROR "TALVEX_UPDATE_PUBLIC_KEY: the key in ${pem} is cut short.")
  endif()
  string(SUBSTRING "${integers}" 0 768 modulus)
  string(SUBSTRING "${integers}" 768 -1 exponent)
  if(NOT exponent MATCHES "^0203(......)$")
    message(FATAL_ERROR "TALVEX_UPDATE_PUBLIC_KEY: the public exponent of the key in ${pem} is not 3 bytes long "
      "(65537 is).")
  endif()
  set(${out_modulus} "${modulus}" PARENT_SCOPE)
  set(${out_exponent} "${CMAKE_MATCH_1}" PARENT_SCOPE)
endfunction()
