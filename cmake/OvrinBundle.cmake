# ovrin_generate(DOMAIN CATALOGUE OUT_DIR): runs ovrin_gen on a catalogue; sets, in the caller's
# scope, <DOMAIN>_GENERATED_SOURCES, _INCLUDE, _DEPENDS (the custom target) and _VERSION_SCRIPT.
#
# ovrin_add_bundle(TARGET DOMAIN CATALOGUE): a catalogue built into the shared library TARGET: its
# generated tables and entry points, the frame, and the engine; exporting exactly the catalogue's
# operations and data.
function(ovrin_generate domain catalogue gen_dir)
  set(gen_sources
    ${gen_dir}/src/sm_tables.cpp
    ${gen_dir}/src/sm_descriptors.cpp
    ${gen_dir}/src/sm_entry.cpp
    ${gen_dir}/src/sm_trace.cpp
    ${gen_dir}/src/sm_manifest.cpp
    ${gen_dir}/src/sm_optable.cpp
    ${gen_dir}/src/sm_dependents.cpp
    ${gen_dir}/src/sm_wire.cpp)
  set(gen_outputs ${gen_sources}
    ${gen_dir}/include/${domain}/types.h
    ${gen_dir}/include/${domain}/ops.h
    ${gen_dir}/include/${domain}/ops_runtime.h
    ${gen_dir}/include/${domain}/exports.inc
    ${gen_dir}/include/${domain}/optable.h
    ${gen_dir}/include/${domain}/${domain}.hpp
    ${gen_dir}/include/${domain}_internal/tables.h
    ${gen_dir}/include/${domain}_internal/tables.inc
    ${gen_dir}/include/${domain}_internal/wire.h
    ${gen_dir}/include/bundle_frame.h
    ${gen_dir}/${domain}.map)
  # The build record names the catalogue by its path in the source tree, not the build directory,
  # and the platform built for, not the machine building (SOURCE_DATE_EPOCH sets its time).
  file(RELATIVE_PATH catalogue_in_tree ${PROJECT_SOURCE_DIR} ${catalogue})
  add_custom_command(
    OUTPUT ${gen_outputs}
    COMMAND ovrin_gen --catalogue ${catalogue} --out ${gen_dir} --domain ${domain}
            --platform "${CMAKE_SYSTEM_NAME} ${CMAKE_SYSTEM_PROCESSOR}" --comment ${catalogue_in_tree}
    DEPENDS ovrin_gen ${catalogue} ${PROJECT_SOURCE_DIR}/ops/messages.def
    COMMENT "Generating the ${domain} sources from its catalogue"
    VERBATIM)
  add_custom_target(${domain}_generated DEPENDS ${gen_outputs})
  set(${domain}_GENERATED_SOURCES ${gen_sources} PARENT_SCOPE)
  set(${domain}_GENERATED_INCLUDE ${gen_dir}/include PARENT_SCOPE)
  set(${domain}_GENERATED_DEPENDS ${domain}_generated PARENT_SCOPE)
  set(${domain}_GENERATED_VERSION_SCRIPT ${gen_dir}/${domain}.map PARENT_SCOPE)
endfunction()

function(ovrin_add_bundle target domain catalogue gen_dir)
  ovrin_generate(${domain} ${catalogue} ${gen_dir})
  file(GLOB frame_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/frame/*.cpp)
  # The bundle's own objects, compiled once: the shared library is made of them, and so are the
  # programs that look inside it (TARGET_objects: the differential check of the compiled wire code
  # against the table walk), which link them with the engine instead of the library.
  add_library(${target}_objects OBJECT ${frame_sources} ${${domain}_GENERATED_SOURCES})
  set_target_properties(${target}_objects PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_link_libraries(${target}_objects PUBLIC ovrin_engine)
  target_include_directories(${target}_objects PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include ${gen_dir}/include)
  # Every primitive is a call into the runtime: through the GOT directly rather than a PLT stub.
  # No C++ exception can leave an exported operation: the bundle is built without exceptions and
  # makes no allocation through the C++ library (its scratch memory comes from the handle or the
  # C heap, which report failure as null). A test checks its imports for anything that could throw.
  target_compile_options(${target}_objects PRIVATE -fno-plt -fno-exceptions)
  add_dependencies(${target}_objects ${${domain}_GENERATED_DEPENDS})
  add_library(${target} SHARED $<TARGET_OBJECTS:${target}_objects>)
  target_link_libraries(${target} PRIVATE ovrin_engine)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                              $<BUILD_INTERFACE:${gen_dir}/include>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
                                       PRIVATE ${PROJECT_SOURCE_DIR})
  # The bundle reaches the runtime by symbol name only: it is linked against libmgx.so for the
  # dependency entry, but compiles against the contract header alone.
  target_link_libraries(${target} PUBLIC mgx)
  # clang links its sanitizer and fuzzer runtimes into the executables only, so an instrumented
  # library cannot be complete on its own.
  if(NOT (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND (OVRIN_SANITIZE OR OVRIN_TSAN OR OVRIN_FUZZ)))
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
  # Only the catalogue's operations and data are exported: the generated list is the whole export set.
  target_link_options(${target} PRIVATE -Wl,--version-script=${${domain}_GENERATED_VERSION_SCRIPT})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${${domain}_GENERATED_VERSION_SCRIPT})
  add_dependencies(${target} ${${domain}_GENERATED_DEPENDS})
  set(${domain}_GENERATED_SOURCES ${${domain}_GENERATED_SOURCES} PARENT_SCOPE)
  set(${domain}_GENERATED_INCLUDE ${${domain}_GENERATED_INCLUDE} PARENT_SCOPE)
  set(${domain}_GENERATED_DEPENDS ${${domain}_GENERATED_DEPENDS} PARENT_SCOPE)
endfunction()
