# Included by the wheel build (CMAKE_PROJECT_INCLUDE): the wheel puts tqdbsim
# in tqdb/bin/, two levels below the modules and the libtqdb next to them, and
# the binary must not point into the build tree it came from.
function(_tq_wheel_rpath)
  set_target_properties(tqdbsim PROPERTIES BUILD_WITH_INSTALL_RPATH ON
                        INSTALL_RPATH "$ORIGIN/../..")
endfunction()
if(CMAKE_VERSION VERSION_LESS 3.19)
  # No deferred calls: every target without an RPATH of its own gets it.
  set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
  set(CMAKE_INSTALL_RPATH "$ORIGIN/../..")
else()
  # tqdbsim is defined later, in sim/.
  cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL _tq_wheel_rpath)
endif()
