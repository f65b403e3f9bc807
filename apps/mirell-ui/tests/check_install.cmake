# Installs the build into a fresh prefix and checks what a desktop needs to find Mirell.
# cmake -DBUILD_DIR=... -DPREFIX=... -P check_install.cmake
file(REMOVE_RECURSE "${PREFIX}")
execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${PREFIX}"
  RESULT_VARIABLE result OUTPUT_QUIET)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${result}")
endif()
foreach(file bin/mirell-ui bin/mirell-stub.exe share/applications/mirell.desktop
             share/icons/hicolor/scalable/apps/mirell.svg)
  if(NOT EXISTS "${PREFIX}/${file}")
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
find_program(VALIDATE desktop-file-validate)
if(VALIDATE)
  execute_process(COMMAND "${VALIDATE}" "${PREFIX}/share/applications/mirell.desktop"
    RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0 OR NOT out STREQUAL "")
    message(FATAL_ERROR "desktop-file-validate: ${out}")
  endif()
else()
  message(FATAL_ERROR "desktop-file-validate is missing (scripts/install-deps installs desktop-file-utils)")
endif()
file(REMOVE_RECURSE "${PREFIX}")
