# The fuzz targets and what each is built from, shared by the fuzz build (each linked with
# libFuzzer) and the test build (each linked with tests/fuzz_replay.cpp, which replays the inputs
# kept in fuzz/regressions/ through the same code).
set(OVRIN_FUZZ_TARGETS wire xml xml_dtd reuse trace elf trace_files trace_format xml_check catalogue json wire_diff wire_diff_shapes)

# ovrin_fuzz_executable(NAME TARGET SOURCES...): an executable from fuzz/TARGET_fuzz.cpp, the
# target's helpers and the given sources.
function(ovrin_fuzz_executable name target)
  set(sources ${PROJECT_SOURCE_DIR}/fuzz/${target}_fuzz.cpp ${ARGN})
  set(libraries ovrin_sm mgx ZLIB::ZLIB ${CMAKE_DL_LIBS})
  if(target STREQUAL "xml_dtd")
    list(APPEND libraries LibXml2::LibXml2)
  elseif(target STREQUAL "xml_check")
    # The tool's check with its private copy of the type tables.
    list(APPEND sources ${PROJECT_SOURCE_DIR}/cli/xml_check.cpp ${PROJECT_SOURCE_DIR}/cli/tables.cpp)
    list(APPEND libraries LibXml2::LibXml2)
  elseif(target STREQUAL "elf")
    list(APPEND sources ${PROJECT_SOURCE_DIR}/tests/sm_heap.cpp ${PROJECT_SOURCE_DIR}/cli/manifest_cmd.cpp
                        ${PROJECT_SOURCE_DIR}/cli/input.cpp)
  elseif(target MATCHES "^wire_diff")
    # The compiled wire code against the table walk: a bundle's own objects, which reach both, in
    # place of its library (wire_diff_shapes: the second catalogue's, tests/shapes).
    set(sources ${PROJECT_SOURCE_DIR}/fuzz/wire_diff_fuzz.cpp ${ARGN})
    set(bundle ovrin_sm)
    if(target STREQUAL "wire_diff_shapes")
      set(bundle ovrin_shapes)
    endif()
    set(libraries ${bundle}_objects mgx ZLIB::ZLIB ${CMAKE_DL_LIBS})
  elseif(target STREQUAL "catalogue")
    list(APPEND libraries ovrin_catalogue) # the catalogue reader the generator and compat share
  elseif(target STREQUAL "trace_files")
    list(APPEND sources ${PROJECT_SOURCE_DIR}/tests/sm_heap.cpp ${PROJECT_SOURCE_DIR}/cli/trace_cmd.cpp
                        ${PROJECT_SOURCE_DIR}/cli/input.cpp)
  endif()
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${OVRIN_GENERATED_INCLUDE})
  target_link_libraries(${name} PRIVATE ${libraries})
  if(OVRIN_GENERATED_DEPENDS)
    add_dependencies(${name} ${OVRIN_GENERATED_DEPENDS})
  endif()
endfunction()

# The program that writes the targets' seed inputs. It fills instances through the type tables,
# with the tests' filler and their private copy of the tables.
function(ovrin_fuzz_seed_writer)
  if(TARGET ovrin_fuzz_seeds)
    return()
  endif()
  add_executable(ovrin_fuzz_seeds ${PROJECT_SOURCE_DIR}/fuzz/seeds.cpp ${PROJECT_SOURCE_DIR}/tests/sm_type_tables.cpp
                                  ${PROJECT_SOURCE_DIR}/tests/sm_fill.cpp)
  target_include_directories(ovrin_fuzz_seeds PRIVATE ${PROJECT_SOURCE_DIR} ${OVRIN_GENERATED_INCLUDE})
  target_link_libraries(ovrin_fuzz_seeds PRIVATE ovrin_sm mgx ZLIB::ZLIB ${CMAKE_DL_LIBS})
  if(OVRIN_GENERATED_DEPENDS)
    add_dependencies(ovrin_fuzz_seeds ${OVRIN_GENERATED_DEPENDS})
  endif()
endfunction()
