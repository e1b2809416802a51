# The real platform (src/linux), the program, and the tests and benchmarks that need them.
find_package(PkgConfig REQUIRED)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET
  libavcodec libavformat libavutil libswscale libswresample)
pkg_check_modules(X11LIBS REQUIRED IMPORTED_TARGET x11 xext xfixes xrandr xtst)
pkg_check_modules(PULSE REQUIRED IMPORTED_TARGET libpulse libpulse-simple)
find_package(Qt6 REQUIRED COMPONENTS Core Gui Widgets DBus)
find_package(benchmark REQUIRED)

set(CMAKE_AUTOMOC ON)
set(CMAKE_AUTORCC ON)

file(GLOB GB_LINUX_SOURCES CONFIGURE_DEPENDS src/linux/*.cpp src/linux/*.h src/linux/*.qrc)
add_library(glimmerbox_linux STATIC ${GB_LINUX_SOURCES})
target_include_directories(glimmerbox_linux PUBLIC src)
target_link_libraries(glimmerbox_linux PUBLIC
  glimmerbox_logic glimmerbox_portable
  PkgConfig::FFMPEG PkgConfig::X11LIBS PkgConfig::PULSE
  Qt6::Core Qt6::Gui Qt6::Widgets Qt6::DBus Threads::Threads)

add_executable(glimmerbox src/main.cpp)
target_link_libraries(glimmerbox PRIVATE glimmerbox_linux)

include(GNUInstallDirs)
install(TARGETS glimmerbox RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(EXISTS ${CMAKE_SOURCE_DIR}/data/glimmerbox.desktop)
  install(FILES data/glimmerbox.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
endif()
if(EXISTS ${CMAKE_SOURCE_DIR}/data/icons/glimmerbox.svg)
  install(FILES data/icons/glimmerbox.svg
          DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
endif()

# Tests of the Linux platform through thin fakes of the system calls.
file(GLOB GB_LINUX_TESTS CONFIGURE_DEPENDS tests/linux/*.cpp)
if(GB_LINUX_TESTS)
  add_executable(glimmerbox_linux_tests ${GB_LINUX_TESTS})
  target_include_directories(glimmerbox_linux_tests PRIVATE src tests)
  target_link_libraries(glimmerbox_linux_tests PRIVATE glimmerbox_linux glimmerbox_fakes
                        GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(glimmerbox_linux_tests DISCOVERY_MODE PRE_TEST
                       PROPERTIES LABELS linux DISCOVERY_TIMEOUT 60)
endif()

# End-to-end tests: the real binary under Xvfb with a PulseAudio null sink, checked with ffprobe.
file(GLOB GB_E2E_TESTS CONFIGURE_DEPENDS tests/e2e/*.cpp)
if(GB_E2E_TESTS)
  add_executable(glimmerbox_e2e_tests ${GB_E2E_TESTS})
  target_include_directories(glimmerbox_e2e_tests PRIVATE src tests)
  target_link_libraries(glimmerbox_e2e_tests PRIVATE GTest::gtest GTest::gmock GTest::gtest_main
                        Threads::Threads)
  target_compile_definitions(glimmerbox_e2e_tests PRIVATE
    GLIMMERBOX_BINARY="$<TARGET_FILE:glimmerbox>"
    GLIMMERBOX_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    GLIMMERBOX_BUILD_DIR="${CMAKE_BINARY_DIR}")
  add_dependencies(glimmerbox_e2e_tests glimmerbox)
  gtest_discover_tests(glimmerbox_e2e_tests DISCOVERY_MODE PRE_TEST
                       PROPERTIES LABELS e2e RUN_SERIAL TRUE TIMEOUT 900 DISCOVERY_TIMEOUT 60)
endif()

# Benchmarks (run by hand or by bench/ scripts, not by make test).
file(GLOB GB_BENCH_SOURCES CONFIGURE_DEPENDS bench/*.cpp)
foreach(src IN LISTS GB_BENCH_SOURCES)
  get_filename_component(name ${src} NAME_WE)
  add_executable(${name} ${src})
  target_include_directories(${name} PRIVATE src tests)
  target_link_libraries(${name} PRIVATE glimmerbox_linux glimmerbox_fakes benchmark::benchmark)
endforeach()

# Small helper programs that the demo and the end-to-end tests drive (tests/tools/NAME.cpp -> NAME).
file(GLOB GB_TOOL_SOURCES CONFIGURE_DEPENDS tests/tools/*.cpp)
foreach(src IN LISTS GB_TOOL_SOURCES)
  get_filename_component(name ${src} NAME_WE)
  add_executable(${name} ${src})
  target_link_libraries(${name} PRIVATE PkgConfig::X11LIBS PkgConfig::PULSE Threads::Threads)
  if(TARGET glimmerbox_e2e_tests)
    add_dependencies(glimmerbox_e2e_tests ${name})
  endif()
endforeach()
