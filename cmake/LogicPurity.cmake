# The logic and the portable platform pieces may use the standard library only. Two guards:
# at configure time their link libraries must be Threads::Threads alone, and at build time a
# scan of their sources refuses any include of Qt, X11, FFmpeg, PulseAudio, V4L2 or D-Bus.

function(gb_enforce_logic_purity target)
  set(dirs ${ARGN})
  add_custom_target(${target}_purity
    COMMAND ${CMAKE_COMMAND} -DDIRS="${dirs}" -P ${CMAKE_SOURCE_DIR}/cmake/CheckIncludes.cmake
    COMMENT "Checking that ${target} includes no platform headers")
  add_dependencies(${target} ${target}_purity)
  # Deferred so that links added later in the configuration are checked too.
  cmake_language(EVAL CODE
    "cmake_language(DEFER DIRECTORY [[${CMAKE_SOURCE_DIR}]] CALL _gb_check_links [[${target}]])")
endfunction()

function(_gb_check_links target)
  get_target_property(libs ${target} LINK_LIBRARIES)
  get_target_property(ilibs ${target} INTERFACE_LINK_LIBRARIES)
  foreach(lib IN LISTS libs ilibs)
    if(lib AND NOT lib STREQUAL "Threads::Threads" AND NOT lib MATCHES "NOTFOUND")
      message(FATAL_ERROR "${target} must link nothing but the standard library; found ${lib}")
    endif()
  endforeach()
endfunction()
