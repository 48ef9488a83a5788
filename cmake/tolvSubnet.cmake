# The two networks inside the system; an SCTP association is to run over both.
set(TOLV_SCTP_SUBNET_A "10.0.1.0" CACHE STRING
  "Internal /24 network over which SCTP associations run")
set(TOLV_SCTP_SUBNET_B "10.0.2.0" CACHE STRING
  "The other internal /24 network")

# tolv_subnet_number(OUT VARIABLE): the dotted quad in the cache variable as a
# number, host byte order, as C++ writes it.
function(tolv_subnet_number OUT VARIABLE)
  set(l_byte "(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])")
  if(NOT "${${VARIABLE}}" MATCHES
      "^${l_byte}\\.${l_byte}\\.${l_byte}\\.0$")
    message(FATAL_ERROR
      "${VARIABLE} is no /24 network, such as 10.0.1.0: ${${VARIABLE}}")
  endif()
  math(EXPR l_number "((${CMAKE_MATCH_1} * 256 + ${CMAKE_MATCH_2}) * 256 \
    + ${CMAKE_MATCH_3}) * 256" OUTPUT_FORMAT HEXADECIMAL)
  set(${OUT} "${l_number}U" PARENT_SCOPE)
endfunction()
