# Turns a file into a C++ source that defines `const unsigned char NAME[]` and `const std::size_t NAME_size`.
function(embed_file INPUT SYMBOL OUTPUT)
  add_custom_command(
    OUTPUT ${OUTPUT}
    COMMAND ${CMAKE_COMMAND} -DINPUT=${INPUT} -DSYMBOL=${SYMBOL} -DOUTPUT=${OUTPUT}
            -P ${PROJECT_SOURCE_DIR}/cmake/EmbedFileScript.cmake
    DEPENDS ${INPUT} ${PROJECT_SOURCE_DIR}/cmake/EmbedFileScript.cmake
    VERBATIM)
endfunction()
