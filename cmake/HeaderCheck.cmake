# Every header compiles on its own, included twice; libcsi's public headers
# also compile as C.
file(GLOB LORUN_CHECKED_HEADERS RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/base/*.h ${PROJECT_SOURCE_DIR}/support/*.h ${PROJECT_SOURCE_DIR}/libcsi/*.h
  ${PROJECT_SOURCE_DIR}/libcsi/include/libcsi/*.h ${PROJECT_SOURCE_DIR}/sim/*.h ${PROJECT_SOURCE_DIR}/framework/*.h
  ${PROJECT_SOURCE_DIR}/gencp/*.h ${PROJECT_SOURCE_DIR}/transport/*.h ${PROJECT_SOURCE_DIR}/modules/*.h
  ${PROJECT_SOURCE_DIR}/entry/*.h)
set(checks "")
foreach(header ${LORUN_CHECKED_HEADERS})
  string(MAKE_C_IDENTIFIER ${header} name)
  set(check ${PROJECT_BINARY_DIR}/header-check/${name}.cpp)
  set(text "#include \"${header}\"\n#include \"${header}\"\n")
  set(old "")
  if(EXISTS ${check})
    file(READ ${check} old)
  endif()
  if(NOT old STREQUAL text)
    file(WRITE ${check} "${text}")
  endif()
  list(APPEND checks ${check})
endforeach()
file(GLOB LORUN_PUBLIC_C_HEADERS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/libcsi/include/libcsi/*.h)
foreach(header ${LORUN_PUBLIC_C_HEADERS})
  string(MAKE_C_IDENTIFIER ${header} name)
  set(check ${PROJECT_BINARY_DIR}/header-check/${name}.c)
  file(WRITE ${check} "#include \"${header}\"\n")
  list(APPEND checks ${check})
endforeach()
add_library(header_check OBJECT ${checks})
target_link_libraries(header_check PRIVATE lorun_entry lorun_sim)
target_compile_options(header_check PRIVATE $<$<COMPILE_LANGUAGE:C>:-std=c99 -pedantic-errors>)
