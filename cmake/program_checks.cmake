# Checks on the built programs themselves, registered in every build (also
# without AVRECORD_TESTS): both name the same version, and camera builds are
# static, stripped and run with an empty library path.
set(program_check_args
  --build ${PROJECT_BINARY_DIR}
  --daemon $<TARGET_FILE:AVRecord>
  --card-tool $<TARGET_FILE:avrecord-card>)
if(CMAKE_CROSSCOMPILING_EMULATOR)
  list(GET CMAKE_CROSSCOMPILING_EMULATOR 0 emulator)
  list(APPEND program_check_args --emulator ${emulator})
endif()
if(AVRECORD_STATIC)
  list(APPEND program_check_args --static)
endif()
add_test(NAME programs_check
  COMMAND bash ${PROJECT_SOURCE_DIR}/tests/programs/check_programs.sh ${program_check_args})
set_tests_properties(programs_check PROPERTIES LABELS "programs" TIMEOUT 120)
