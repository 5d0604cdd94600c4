# Helpers that every subsystem's CMakeLists.txt uses, so that a target reads as
# its name, its sources and what it depends on.

# Warning flags and sanitizers. Linked privately while building; never exported.
add_library(motrace_build_flags INTERFACE)
target_compile_options(
  motrace_build_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
                                -Woverloaded-virtual)
if(MOTRACE_WERROR)
  target_compile_options(motrace_build_flags INTERFACE -Werror)
endif()

if(MOTRACE_SANITIZE)
  # Instrumented code trips GCC's flow analysis, also inside the standard library's headers.
  target_compile_options(motrace_build_flags
                         INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  # Global: a sanitizer covers every object of the program or none.
  add_compile_options(-fsanitize=${MOTRACE_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${MOTRACE_SANITIZE})
  if(MOTRACE_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=all)
  endif()
endif()

# Log records print the part of __FILE__ after its last backslash. Mapping the
# source roots to end in one makes that part the path below the root.
add_compile_options(
  "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/qvxmedia/src/=qvxmedia\\src\\"
  "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/src/=src\\")

# motrace_add_library(<target> ALIAS <ns::name> SOURCES ... [PUBLIC ...] [PRIVATE ...]
#                     INCLUDE_DIR <dir> [INSTALL_INCLUDE_DIR <dir>]
#                     [EXPORT <set> PUBLIC_HEADERS ...])
# A static library with an alias; INCLUDE_DIR is what users' #include paths start from.
# EXPORT installs it, with its public headers below INSTALL_INCLUDE_DIR, as part of the export set
# (cmake/MotraceInstall.cmake installs the sets): outside it has the name of its alias.
function(motrace_add_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "ALIAS;INCLUDE_DIR;INSTALL_INCLUDE_DIR;EXPORT"
                        "SOURCES;PUBLIC;PRIVATE;PUBLIC_HEADERS")
  add_library(${target} STATIC ${arg_SOURCES})
  add_library(${arg_ALIAS} ALIAS ${target})
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_include_directories(
    ${target} PUBLIC $<BUILD_INTERFACE:${arg_INCLUDE_DIR}>
                     $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/${arg_INSTALL_INCLUDE_DIR}>)
  target_link_libraries(
    ${target}
    PUBLIC ${arg_PUBLIC}
    PRIVATE ${arg_PRIVATE} $<BUILD_INTERFACE:motrace_build_flags>)
  if(NOT arg_EXPORT OR NOT MOTRACE_INSTALL)
    return()
  endif()
  string(REGEX REPLACE ".*::" "" export_name ${arg_ALIAS})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${export_name})
  set(component dev)
  if(NOT arg_EXPORT STREQUAL "qvxmedia")
    # A library beside the pipeline: a component of its package, or of that of the image libraries.
    string(REGEX REPLACE "::.*" "::" namespace ${arg_ALIAS})
    set_property(GLOBAL APPEND PROPERTY MOTRACE_COMPONENTS ${arg_EXPORT})
    set_property(GLOBAL APPEND PROPERTY MOTRACE_COMPONENT_TARGETS ${arg_ALIAS})
  endif()
  if(arg_EXPORT STREQUAL "camm")
    install(EXPORT ${arg_EXPORT} NAMESPACE ${namespace} FILE qvxmedia-${arg_EXPORT}.cmake
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qvxmedia COMPONENT ${component})
  elseif(NOT arg_EXPORT STREQUAL "qvxmedia")
    set(component image_dev)
    install(EXPORT ${arg_EXPORT} NAMESPACE ${namespace} FILE ${arg_EXPORT}.cmake
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qvxmedia-image COMPONENT ${component})
    set(libs ${arg_PUBLIC} ${arg_PRIVATE})
    list(TRANSFORM libs REPLACE "OpenCVCore::" "-lopencv_")
    list(TRANSFORM libs REPLACE "CUDA::(.*)" "-L${CUDAToolkit_LIBRARY_DIR} -l\\1 -ldl -lrt")
    list(JOIN libs " " libs)
    set_property(GLOBAL APPEND PROPERTY MOTRACE_IMAGE_EXPORTS ${arg_EXPORT})
    set_property(GLOBAL PROPERTY MOTRACE_IMAGE_PC_${arg_EXPORT} ${target} ${libs})
  endif()
  install(TARGETS ${target} EXPORT ${arg_EXPORT}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component})
  foreach(header IN LISTS arg_PUBLIC_HEADERS)
    cmake_path(ABSOLUTE_PATH header BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
    cmake_path(RELATIVE_PATH header BASE_DIRECTORY ${arg_INCLUDE_DIR} OUTPUT_VARIABLE relative)
    cmake_path(GET relative PARENT_PATH folder)
    install(FILES ${header}
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${arg_INSTALL_INCLUDE_DIR}/${folder}
            COMPONENT ${component})
  endforeach()
endfunction()

# Tests get their ctest label here and nowhere else.

# motrace_add_test(<target> SOURCES ... LIBS ... [TIMEOUT <s>])
# One GoogleTest binary; each of its cases becomes a ctest entry. Label: `unit` for cases in the test's
# own process; the folder's name where they run whole programs or for long.
function(motrace_add_test target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT" "SOURCES;LIBS")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME label)
  if(NOT label MATCHES "^(stress|tool)$")
    set(label unit)
  endif()
  add_executable(${target} ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE ${arg_LIBS} GTest::gmock GTest::gtest_main
                                          motrace_build_flags)
  gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST NO_PRETTY_VALUES
                       PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS ${label})
endfunction()

# motrace_add_run(<name> COMMAND ... [TIMEOUT <s>] [MAKES <fixture>] [PROPERTIES ...])
# A program that passes by its exit code. It runs with the sample video, unless it makes a fixture.
# Label, and the beginning of its name: the folder's name.
function(motrace_add_run name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT;MAKES" "COMMAND;PROPERTIES")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  set(fixture FIXTURES_REQUIRED sample)
  if(arg_MAKES)
    set(fixture FIXTURES_SETUP ${arg_MAKES})
  endif()
  cmake_path(GET CMAKE_CURRENT_SOURCE_DIR FILENAME label)
  add_test(NAME ${label}.${name} COMMAND ${arg_COMMAND})
  set_tests_properties(${label}.${name} PROPERTIES ${fixture} LABELS ${label}
                                                   TIMEOUT ${arg_TIMEOUT} ${arg_PROPERTIES})
endfunction()

# motrace_add_benchmark(<target> SOURCES ... LIBS ...): one Google Benchmark binary.
function(motrace_add_benchmark target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBS")
  add_executable(${target} ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE ${arg_LIBS} benchmark::benchmark motrace_build_flags)
endfunction()
