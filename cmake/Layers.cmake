# The build fails when a source includes a header of a layer above its own.
set(LORUN_LAYER_SCRIPT ${PROJECT_SOURCE_DIR}/cmake/CheckLayers.cmake)
file(GLOB_RECURSE LORUN_LAYERED_SOURCES CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/base/*.h ${PROJECT_SOURCE_DIR}/base/*.cpp
  ${PROJECT_SOURCE_DIR}/support/*.h ${PROJECT_SOURCE_DIR}/support/*.cpp
  ${PROJECT_SOURCE_DIR}/libcsi/*.h ${PROJECT_SOURCE_DIR}/libcsi/*.cpp
  ${PROJECT_SOURCE_DIR}/sim/*.h ${PROJECT_SOURCE_DIR}/sim/*.cpp
  ${PROJECT_SOURCE_DIR}/framework/*.h ${PROJECT_SOURCE_DIR}/framework/*.cpp
  ${PROJECT_SOURCE_DIR}/gencp/*.h ${PROJECT_SOURCE_DIR}/gencp/*.cpp
  ${PROJECT_SOURCE_DIR}/transport/*.h ${PROJECT_SOURCE_DIR}/transport/*.cpp
  ${PROJECT_SOURCE_DIR}/modules/*.h ${PROJECT_SOURCE_DIR}/modules/*.cpp
  ${PROJECT_SOURCE_DIR}/entry/*.h ${PROJECT_SOURCE_DIR}/entry/*.cpp
  ${PROJECT_SOURCE_DIR}/client/*.h ${PROJECT_SOURCE_DIR}/client/*.cpp
  ${PROJECT_SOURCE_DIR}/tools/*.h ${PROJECT_SOURCE_DIR}/tools/*.cpp
  ${PROJECT_SOURCE_DIR}/gst/*.h ${PROJECT_SOURCE_DIR}/gst/*.cpp
  ${PROJECT_SOURCE_DIR}/bench/*.h ${PROJECT_SOURCE_DIR}/bench/*.cpp)
add_custom_command(
  OUTPUT ${PROJECT_BINARY_DIR}/layers.checked
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${PROJECT_SOURCE_DIR} -P ${LORUN_LAYER_SCRIPT}
  COMMAND ${CMAKE_COMMAND} -E touch ${PROJECT_BINARY_DIR}/layers.checked
  DEPENDS ${LORUN_LAYERED_SOURCES} ${LORUN_LAYER_SCRIPT}
  COMMENT "Checking that includes point downward"
  VERBATIM)
add_custom_target(check_layers ALL DEPENDS ${PROJECT_BINARY_DIR}/layers.checked)
