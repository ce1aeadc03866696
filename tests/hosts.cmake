# Real hosts: a Fortran program and two C programs (one source) call the shared library the way the
# finite-element host does, and a check that the library exports exactly the host's entries.
include(CheckLanguage)
check_language(Fortran)
if(CMAKE_Fortran_COMPILER)
  enable_language(Fortran)
  add_executable(fortran_host ${CMAKE_CURRENT_SOURCE_DIR}/hosts/fortran_host.f90)
  target_link_libraries(fortran_host PRIVATE krxlib)
  # The library finds the program's callbacks in its dynamic symbol table.
  set_target_properties(fortran_host PROPERTIES ENABLE_EXPORTS ON LINKER_LANGUAGE Fortran
                        Fortran_MODULE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/fortran_modules)
  add_test(NAME host.fortran COMMAND fortran_host)
  set_tests_properties(host.fortran PROPERTIES ENVIRONMENT "TMP=${CMAKE_CURRENT_BINARY_DIR}")
else()
  message(WARNING "No Fortran compiler: the Fortran host test is not built")
endif()

# One C source: loading the library at run time (DLOPEN_HOST), or linking it and registering.
add_executable(dlopen_host ${CMAKE_CURRENT_SOURCE_DIR}/hosts/c_host.c)
target_compile_definitions(dlopen_host PRIVATE DLOPEN_HOST)
target_link_libraries(dlopen_host PRIVATE ${CMAKE_DL_LIBS})
set_target_properties(dlopen_host PROPERTIES ENABLE_EXPORTS ON)
add_dependencies(dlopen_host krxlib)
add_test(NAME host.dlopen COMMAND dlopen_host $<TARGET_FILE:krxlib>)

add_executable(registering_host ${CMAKE_CURRENT_SOURCE_DIR}/hosts/c_host.c)
target_link_libraries(registering_host PRIVATE krxlib)
add_test(NAME host.registering COMMAND registering_host)

foreach(test host.dlopen host.registering)
  set_tests_properties(${test} PROPERTIES ENVIRONMENT "TMP=${CMAKE_CURRENT_BINARY_DIR}")
endforeach()

add_test(NAME host.exports
         COMMAND ${CMAKE_COMMAND} -DNM=${CMAKE_NM} -DLIBRARY=$<TARGET_FILE:krxlib>
                 -P ${CMAKE_CURRENT_SOURCE_DIR}/hosts/check_exports.cmake)

# The Fortran consumer of the install, built here against the module krx of the build tree.
if(TARGET krxlib_fortran)
  add_executable(fortran_module_host ${PROJECT_SOURCE_DIR}/tests/consumers/fortran_consumer.f90)
  target_link_libraries(fortran_module_host PRIVATE krxlib_fortran)
  add_test(NAME host.fortran_module
           COMMAND fortran_module_host ${CMAKE_CURRENT_BINARY_DIR}/fortran_module.krx)
  add_test(NAME host.fortran_module_listed
           COMMAND krxdump ${CMAKE_CURRENT_BINARY_DIR}/fortran_module.krx -l)
  set_tests_properties(host.fortran_module PROPERTIES ENVIRONMENT "TMP=${CMAKE_CURRENT_BINARY_DIR}"
                       FIXTURES_SETUP fortran_module_file)
  set_tests_properties(host.fortran_module_listed PROPERTIES FIXTURES_REQUIRED fortran_module_file)
endif()
