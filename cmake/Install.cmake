# Installation of the library (included from audio-engine/CMakeLists.txt): the shared libraries,
# the public headers, a pkg-config file and a CMake package, so that a consumer writes either
#   c++ app.cpp $(pkg-config --cflags --libs audio-engine)
# or
#   find_package(AudioEngine 1.0 CONFIG REQUIRED)
#   target_link_libraries(app PRIVATE AudioEngine::audio-engine)
# The package's targets: AudioEngine::audio-engine, whose interface carries
# AudioEngine::platform (the platform headers, and the platform libraries: the host replacement
# AudioEngine::audio-engine-host, or the device's own libraries with AE_DEVICE_PLATFORM).
include(CMakePackageConfigHelpers)

set(_ae_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/AudioEngine)
set(_ae_targets audio-engine ae_platform)
if(TARGET audio-engine-host)
  list(APPEND _ae_targets audio-engine-host)
endif()
install(TARGETS ${_ae_targets} EXPORT AudioEngineTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT AudioEngineTargets NAMESPACE AudioEngine:: DESTINATION ${_ae_cmake_dir})

file(GLOB _ae_public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/audio-engine/include/*.h)
install(FILES ${_ae_public_headers} ${PROJECT_SOURCE_DIR}/audio-engine/src/alsa_device/alsa_device.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/audio-engine)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/audio-engine/platform/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/audio-engine/platform
        FILES_MATCHING PATTERN "*.h" PATTERN "host" EXCLUDE)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/AudioEngineConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/AudioEngineConfig.cmake
                              INSTALL_DESTINATION ${_ae_cmake_dir})
# Same major version: 1.x keeps the binary interface of libaudio-engine.so.1. The file also
# refuses a package built for another pointer size (armhf against x86-64).
write_basic_package_version_file(${PROJECT_BINARY_DIR}/AudioEngineConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/AudioEngineConfig.cmake
              ${PROJECT_BINARY_DIR}/AudioEngineConfigVersion.cmake
        DESTINATION ${_ae_cmake_dir})

# The pkg-config file names the prefix the files are installed under, so it is written at
# install time: `cmake --install build --prefix DIR` gets a file that points into DIR.
# Its Libs name the platform libraries too, as the CMake target does: the platform headers are
# public, and the linker needs them to resolve the library's own references to the platform.
if(TARGET audio-engine-host)
  set(_ae_pc_platform_libs "-laudio-engine-host")
else()
  list(TRANSFORM AE_DEVICE_PLATFORM_LIBS PREPEND "-l" OUTPUT_VARIABLE _ae_pc_platform_libs)
  list(JOIN _ae_pc_platform_libs " " _ae_pc_platform_libs)
endif()
set(_ae_pc_in ${PROJECT_SOURCE_DIR}/cmake/audio-engine.pc.in)
set(_ae_pc ${PROJECT_BINARY_DIR}/install/audio-engine.pc)
install(CODE "
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(AE_PC_PLATFORM_LIBS \"${_ae_pc_platform_libs}\")
  configure_file(\"${_ae_pc_in}\" \"${_ae_pc}\" @ONLY)")
install(FILES ${_ae_pc} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
