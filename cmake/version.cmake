# Writes the build's version into OUTPUT (a C++ source) and OUTPUT_TEXT (one
# line), each only when it changed, so an unchanged tree relinks nothing.
# The version is "git describe" of the source tree; without a release tag it
# is BASE_VERSION-g<commit>, "-dirty" marking uncommitted changes.
execute_process(
  COMMAND git describe --tags --match "v[0-9]*" --dirty
  WORKING_DIRECTORY ${SOURCE_DIR}
  OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE
  RESULT_VARIABLE tagged ERROR_QUIET)
if(tagged EQUAL 0)
  string(REGEX REPLACE "^v" "" version "${version}")
else()
  execute_process(
    COMMAND git describe --always --abbrev=12 --dirty
    WORKING_DIRECTORY ${SOURCE_DIR}
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE described ERROR_QUIET)
  if(described EQUAL 0)
    set(version "${BASE_VERSION}-g${commit}")
  else()
    set(version "${BASE_VERSION}")
  endif()
endif()

function(write_if_changed path text)
  if(EXISTS ${path})
    file(READ ${path} old)
    if(old STREQUAL text)
      return()
    endif()
  endif()
  file(WRITE ${path} "${text}")
endfunction()

write_if_changed(${OUTPUT} "#include \"common/version.h\"\n\nconst char *AVRecordVersion() { return \"${version}\"; }\n")
write_if_changed(${OUTPUT_TEXT} "${version}\n")
