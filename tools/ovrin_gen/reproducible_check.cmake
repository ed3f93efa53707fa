# The generated sources are reproducible: two runs as different users, in different directories
# and processes, with the same SOURCE_DATE_EPOCH, write the same bytes, and the build record's
# time is that epoch. A malformed SOURCE_DATE_EPOCH is refused.
#   cmake -DGEN=<ovrin_gen> -DCATALOGUE=<ovrin_sm.types> -DWORK=<scratch dir> -P reproducible_check.cmake
file(REMOVE_RECURSE ${WORK})
foreach(run first second)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env USER=builder-${run} LOGNAME=builder-${run} SOURCE_DATE_EPOCH=1000000000
                          ${GEN} --catalogue ${CATALOGUE} --out ${WORK}/${run}/out --platform "Linux x86_64"
                          --comment catalogue/ovrin_sm.types
                  RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "ovrin_gen failed in the ${run} run")
  endif()
endforeach()

file(GLOB_RECURSE outputs RELATIVE ${WORK}/first/out ${WORK}/first/out/*)
list(LENGTH outputs count)
if(count LESS 10)
  message(FATAL_ERROR "the first run wrote only ${count} files")
endif()
foreach(f ${outputs})
  file(SHA256 ${WORK}/first/out/${f} a)
  file(SHA256 ${WORK}/second/out/${f} b)
  if(NOT a STREQUAL b)
    message(FATAL_ERROR "${f} differs between two runs from the same sources")
  endif()
endforeach()

# The record's bytes are written out as ".byte" lists: decode them back to text.
file(READ ${WORK}/first/out/src/sm_manifest.cpp manifest)
string(REGEX MATCHALL "[0-9]+" numbers "${manifest}")
set(text "")
foreach(n ${numbers})
  if(n GREATER 31 AND n LESS 127)
    string(ASCII ${n} ch)
    string(APPEND text "${ch}")
  else()
    string(APPEND text "|")
  endif()
endforeach()
foreach(line "built by: ovrin_gen" "on host: Linux x86_64" "pid: 0" "at: 2001-09-09T01:46:40Z"
             "comment: catalogue/ovrin_sm.types")
  string(FIND "${text}" "|${line}|" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the build record lacks the line '${line}': ${text}")
  endif()
endforeach()

execute_process(COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=yesterday
                        ${GEN} --catalogue ${CATALOGUE} --out ${WORK}/bad
                RESULT_VARIABLE status ERROR_VARIABLE error)
if(status EQUAL 0 OR NOT error MATCHES "SOURCE_DATE_EPOCH")
  message(FATAL_ERROR "a malformed SOURCE_DATE_EPOCH was not refused (${status}): ${error}")
endif()
message(STATUS "the generated sources are reproducible")
