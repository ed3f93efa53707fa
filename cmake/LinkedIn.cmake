# The linked-in form (OVRIN_LINKED_IN): libmgx.a and libovrin_sm.a, installed beside the shared
# libraries as ovrin_sm::mgx_static and ovrin_sm::ovrin_sm_static. libovrin_sm.a holds the bundle
# whole (frame, generated entry points and tables, engine). A consumer links it with
# INTERPROCEDURAL_OPTIMIZATION (or -flto) to get the runtime inlined into the bundle.
include(CheckIPOSupported)
check_ipo_supported(RESULT ovrin_ipo OUTPUT ovrin_ipo_why LANGUAGES CXX)
if(NOT ovrin_ipo)
  message(FATAL_ERROR "OVRIN_LINKED_IN needs link-time optimisation, which this compiler lacks: ${ovrin_ipo_why}")
endif()

function(ovrin_linked_in target output_name)
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${output_name} INTERPROCEDURAL_OPTIMIZATION ON)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -ffat-lto-objects)
  endif()
endfunction()

# A static archive passes its dependencies on: the consumer links libxml2, zlib and libdl too.
ovrin_runtime_library(mgx_static STATIC PUBLIC)
ovrin_linked_in(mgx_static mgx)

file(GLOB ovrin_frame_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/frame/*.cpp)
add_library(ovrin_sm_static STATIC ${ovrin_frame_sources} ${ovrin_sm_GENERATED_SOURCES} ${OVRIN_ENGINE_SOURCES})
target_include_directories(ovrin_sm_static PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                                  $<BUILD_INTERFACE:${OVRIN_GENERATED_INCLUDE}>
                                                  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
                                           PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_options(ovrin_sm_static PRIVATE -fno-exceptions)
# jansson by name: the consumer's linker finds libjansson.a or .so as it links.
target_link_libraries(ovrin_sm_static PUBLIC mgx_static jansson)
add_dependencies(ovrin_sm_static ${OVRIN_GENERATED_DEPENDS})
ovrin_linked_in(ovrin_sm_static ovrin_sm)

add_library(ovrin_sm::ovrin_sm_static ALIAS ovrin_sm_static)
add_library(ovrin_sm::mgx_static ALIAS mgx_static)
