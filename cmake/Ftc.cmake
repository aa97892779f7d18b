# Project helpers: one static library per plug-in subsystem, one test binary per test folder.

set(FTC_PLUGIN_MODULES "" CACHE INTERNAL "")

# ftc_plugin_module(name [USES lower...]): plugin/<name>/*.cpp as the static library ftc_<name>,
# linked with the modules it uses. Those must be declared first, so the graph cannot close a
# cycle; they and whatever lies below them are all that <name>'s files may include.
function(ftc_plugin_module name)
  cmake_parse_arguments(arg "" "" "USES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp)
  if(NOT sources)
    message(FATAL_ERROR "plug-in module ${name} has no sources")
  endif()
  set(below "")
  set(libraries "")
  foreach(m ${arg_USES})
    if(NOT TARGET ftc_${m})
      message(FATAL_ERROR "plug-in module ${name} uses ${m}, which is not declared below it")
    endif()
    list(APPEND below ${m} ${FTC_BELOW_${m}})
    list(APPEND libraries ftc_${m})
  endforeach()
  list(REMOVE_DUPLICATES below)
  set(FTC_BELOW_${name} "${below}" CACHE INTERNAL "")

  add_library(ftc_${name} STATIC ${sources})
  target_include_directories(ftc_${name} PUBLIC ${PROJECT_SOURCE_DIR}/plugin)
  target_link_libraries(ftc_${name} PUBLIC ${libraries} ftc_common winux ftchost Threads::Threads)
  # Nothing compiles before the include check has passed (ftc_plugin_layers defines it).
  add_dependencies(ftc_${name} ftc_layer_includes)
  set(FTC_PLUGIN_MODULES ${FTC_PLUGIN_MODULES} ${name} CACHE INTERNAL "")

  # The link lines hold too: the module with only what lies below it must leave nothing
  # undefined.
  set(empty ${CMAKE_BINARY_DIR}/layers/empty.cpp)
  file(CONFIGURE OUTPUT ${empty} CONTENT "// The module's archive is the whole library.\n")
  add_library(ftc_${name}_closed SHARED EXCLUDE_FROM_ALL ${empty})
  set_target_properties(ftc_${name}_closed PROPERTIES LINKER_LANGUAGE CXX
                        LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/layers)
  target_link_libraries(ftc_${name}_closed PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,ftc_${name}>")
  target_link_options(ftc_${name}_closed PRIVATE -Wl,--no-undefined)
  add_dependencies(ftc_layers ftc_${name}_closed)
endfunction()

# ftc_plugin_layers(): the include check over every declared module; part of the default build.
function(ftc_plugin_layers)
  set(rules "")
  set(sources "")
  foreach(m ${FTC_PLUGIN_MODULES})
    string(REPLACE ";" "," below "${FTC_BELOW_${m}}")
    list(APPEND rules "${m}:${below}")
    file(GLOB files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/plugin/${m}/*.cpp
         ${PROJECT_SOURCE_DIR}/plugin/${m}/*.h)
    list(APPEND sources ${files})
  endforeach()
  string(REPLACE ";" "|" rules "${rules}")
  set(command ${CMAKE_COMMAND} -DPLUGIN_DIR=${PROJECT_SOURCE_DIR}/plugin "-DRULES=${rules}" -P
              ${PROJECT_SOURCE_DIR}/cmake/CheckLayers.cmake)
  set(stamp ${CMAKE_BINARY_DIR}/layers/includes.stamp)
  add_custom_command(OUTPUT ${stamp}
                     COMMAND ${command}
                     COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
                     DEPENDS ${sources} ${PROJECT_SOURCE_DIR}/cmake/CheckLayers.cmake
                     COMMENT "Checking the plug-in's module layers" VERBATIM)
  add_custom_target(ftc_layer_includes DEPENDS ${stamp})
  add_dependencies(ftc_layers ftc_layer_includes)
  set(FTC_LAYERS_COMMAND "${command}" CACHE INTERNAL "")
endfunction()

# ftc_plugin_libraries(out [modules...]): the libraries of the named plug-in modules, all of
# them when none are named. Each brings what lies below it.
function(ftc_plugin_libraries out)
  set(modules ${ARGN})
  if(NOT modules)
    set(modules ${FTC_PLUGIN_MODULES})
  endif()
  set(libraries "")
  foreach(m ${modules})
    if(NOT TARGET ftc_${m})
      message(FATAL_ERROR "no plug-in module ${m}")
    endif()
    list(APPEND libraries ftc_${m})
  endforeach()
  set(${out} ${libraries} PARENT_SCOPE)
endfunction()

# ftc_test_dir(dir [MODULES m...]): tests/<dir>/*.cpp as the test binary test_<dir with / as _>,
# linked with the named plug-in modules (all of them when none are named, none with "none"), the
# host libraries and the test support library.
function(ftc_test_dir dir)
  cmake_parse_arguments(arg "" "" "MODULES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp)
  if(NOT sources)
    return()
  endif()
  string(REPLACE "/" "_" name "test_${dir}")
  add_executable(${name} ${sources})
  set(libraries "")
  if(NOT arg_MODULES STREQUAL "none")
    ftc_plugin_libraries(libraries ${arg_MODULES})
  endif()
  target_link_libraries(${name} PRIVATE ftc_test_support ${libraries} winux ftchost
                        GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
  # The folder is the label, so that a build of a few suites can run just those (make test-tsan).
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                       PROPERTIES ENVIRONMENT "FTC_BUILD_DIR=${CMAKE_BINARY_DIR}" TIMEOUT 300
                                  LABELS ${dir})
endfunction()
