# One static library per module folder: every .cpp of the folder, named
# avr_<folder>, with the project root on the include path so headers are
# included as "module/unit.h".
function(avrecord_module name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    # A folder whose first unit has not landed yet.
    set(sources ${CMAKE_CURRENT_BINARY_DIR}/empty_module.cpp)
    file(WRITE ${sources} "")
  endif()
  add_library(avr_${name} STATIC ${sources})
  target_include_directories(avr_${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(avr_${name} PUBLIC Threads::Threads ${ARGN})
endfunction()

# One program from every .cpp of the current folder.
function(avrecord_program name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE ${ARGN})
endfunction()

# Links the module libraries among ARGN that exist in this build (folders
# join the build as their code lands; the order in the top-level list makes
# every dependency known before its users).
function(avrecord_link_modules target)
  foreach(module ${ARGN})
    if(TARGET avr_${module})
      target_link_libraries(${target} PUBLIC avr_${module})
    endif()
  endforeach()
endfunction()
