# The companions: a wheel, unpacked into companions/ of the build folder, where scripts/lab takes its commands from.
# Whoever has no setuptools builds the program alone.
#
# Nothing is written beside the sources: what was built by root would be in the way later.

option(VORN_COMPANIONS "Build the companions, where this Python can" ON)
if(NOT VORN_COMPANIONS OR CMAKE_CROSSCOMPILING)  # they are the same for all processors
  return()
endif()
set(VORN_PYTHON /usr/bin/python3 CACHE FILEPATH "The Python that the companions are built with")
execute_process(COMMAND ${VORN_PYTHON} -c "import setuptools, wheel, pip"
                RESULT_VARIABLE failed OUTPUT_QUIET ERROR_QUIET)
if(failed)
  message(STATUS "The companions are left out: ${VORN_PYTHON} has no pip, setuptools or wheel")
  return()
endif()

set(wheel_dir ${CMAKE_CURRENT_BINARY_DIR}/wheel)
set(wheel ${wheel_dir}/vorn_companions-${PROJECT_VERSION}-py3-none-any.whl)
set(pip ${CMAKE_COMMAND} -E env PYTHONDONTWRITEBYTECODE=1 ${VORN_PYTHON} -m pip --quiet --disable-pip-version-check)
set(offline --no-deps --no-index)
file(GLOB_RECURSE companion_sources CONFIGURE_DEPENDS companions/*)
list(FILTER companion_sources EXCLUDE REGEX __pycache__)
add_custom_command(OUTPUT ${wheel}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${wheel_dir} ${CMAKE_CURRENT_BINARY_DIR}/companions
  COMMAND ${CMAKE_COMMAND} -E copy_directory ${CMAKE_CURRENT_SOURCE_DIR}/companions ${wheel_dir}/companions
  COMMAND ${CMAKE_COMMAND} -E make_directory ${wheel_dir}/src/base
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_SOURCE_DIR}/src/base/version.h ${wheel_dir}/src/base
  COMMAND ${pip} wheel ${offline} --no-build-isolation --wheel-dir ${wheel_dir} ${wheel_dir}/companions
  COMMAND ${pip} install ${offline} --root-user-action=ignore --no-compile --target ${CMAKE_CURRENT_BINARY_DIR}/companions ${wheel}
  DEPENDS ${companion_sources} src/base/version.h
  COMMENT "Building the companions"
  VERBATIM)
add_custom_target(companions ALL DEPENDS ${wheel})
