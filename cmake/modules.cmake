# Release number; builds between releases add the commit (cmake/version.cmake).
set(AVRECORD_BASE_VERSION 1.0)

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

# Warnings for every target defined in the project's own folders, errors too
# with AVRECORD_WERROR. Third-party sources built here (GoogleTest) keep
# their own flags.
function(avrecord_warnings dir)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target ${targets})
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(STATIC_LIBRARY|SHARED_LIBRARY|OBJECT_LIBRARY|EXECUTABLE)$")
      target_compile_options(${target} PRIVATE -Wall -Wextra $<$<BOOL:${AVRECORD_WERROR}>:-Werror>)
    endif()
  endforeach()
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(subdir ${subdirs})
    cmake_path(IS_PREFIX PROJECT_SOURCE_DIR ${subdir} NORMALIZE inside)
    if(inside)
      avrecord_warnings(${subdir})
    endif()
  endforeach()
endfunction()

# A program that goes onto the camera: with AVRECORD_STATIC it is stripped
# after linking and its symbols kept in <program>.debug beside it (linked to
# it by name, for field crash reports). The link fails on any C library
# function that would load shared objects at run time (name service, iconv).
function(avrecord_camera_program target)
  if(NOT AVRECORD_STATIC)
    return()
  endif()
  target_link_options(${target} PRIVATE -Wl,--fatal-warnings)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> $<TARGET_FILE:${target}>.debug
    COMMAND ${CMAKE_STRIP} --strip-all $<TARGET_FILE:${target}>
    COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug $<TARGET_FILE:${target}>
    WORKING_DIRECTORY $<TARGET_FILE_DIR:${target}>
    VERBATIM)
endfunction()
