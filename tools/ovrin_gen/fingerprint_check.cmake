# A type's fingerprint follows its definition: a changed field changes the fingerprint of the
# type and of every type that contains it, and nothing else; comments and spacing change nothing.
#   cmake -DGEN=<ovrin_gen> -DCATALOGUE=<ovrin_sm.types> -DWORK=<scratch dir> -P fingerprint_check.cmake
file(REMOVE_RECURSE ${WORK})
file(READ ${CATALOGUE} original)

string(REPLACE "record sess_mgr_conn_hdl\n  conn_hdl u_int32\n"
               "# the connection handle\nrecord   sess_mgr_conn_hdl    # spaced out\n\n    conn_hdl    u_int32\n"
               reformatted "${original}")
string(REPLACE "record sess_mgr_conn_hdl\n  conn_hdl u_int32\n"
               "record sess_mgr_conn_hdl\n  conn_hdl u_int64\n" changed "${original}")
if(reformatted STREQUAL original OR changed STREQUAL original)
  message(FATAL_ERROR "the catalogue no longer defines sess_mgr_conn_hdl as expected by this check")
endif()

foreach(variant original reformatted changed)
  file(WRITE ${WORK}/${variant}.types "${${variant}}")
  execute_process(COMMAND ${GEN} --catalogue ${WORK}/${variant}.types --out ${WORK}/${variant}
                  RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "ovrin_gen failed on the ${variant} catalogue")
  endif()
  file(READ ${WORK}/${variant}/src/sm_descriptors.cpp descriptors_${variant})
endforeach()

function(fingerprint variant type out)
  string(REGEX MATCH "_${type}_type_info_internal = {[^}]*},[^\"]*\"([0-9a-f]+)\"" found "${descriptors_${variant}}")
  if(NOT CMAKE_MATCH_1)
    message(FATAL_ERROR "no fingerprint for ${type} in the ${variant} descriptors")
  endif()
  set(${out} ${CMAKE_MATCH_1} PARENT_SCOPE)
endfunction()

foreach(type sess_mgr_conn_hdl sess_mgr_session_start ovrin_smd_resp_event sm_peer_state sess_mgr_client_hdl)
  fingerprint(original ${type} before)
  fingerprint(reformatted ${type} same)
  fingerprint(changed ${type} after)
  if(NOT same STREQUAL before)
    message(FATAL_ERROR "${type}: reformatting the catalogue changed the fingerprint")
  endif()
  if(type MATCHES "^(sess_mgr_conn_hdl|sess_mgr_session_start|ovrin_smd_resp_event)$")
    if(after STREQUAL before)
      message(FATAL_ERROR "${type}: changing sess_mgr_conn_hdl left the fingerprint as it was")
    endif()
  elseif(NOT after STREQUAL before)
    message(FATAL_ERROR "${type}: changing sess_mgr_conn_hdl changed an unrelated fingerprint")
  endif()
endforeach()
message(STATUS "fingerprints follow the definitions")
