# kel_module(NAME): a module of the agent from the sources of the current folder and its subfolders. Makes the objects
# as the target NAME_objects, which tests link, and the shared library NAME.so in the folder modules of the build. A
# symbol that no library defines fails the link, not the agent's start (sanitizers leave theirs to the program). Its ini
# file stands beside the library: the agent reads the schema of the module's database from there.
function(kel_module name)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/module_main\\.cpp$")
  add_library(${name}_objects OBJECT ${sources})
  target_link_libraries(${name}_objects PUBLIC KelCore ${ARGN})
  add_library(${name} MODULE module_main.cpp)
  target_link_libraries(${name} PRIVATE ${name}_objects)
  if(NOT KEL_SANITIZE)
    target_link_options(${name} PRIVATE -Wl,-z,defs)
  endif()
  set_target_properties(${name} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/modules
                                           INSTALL_RPATH "$ORIGIN/..")
  configure_file(${name}.ini ${CMAKE_BINARY_DIR}/modules/${name}.ini COPYONLY)
  install(TARGETS ${name} LIBRARY DESTINATION lib/kel/modules COMPONENT agent)
  install(FILES ${name}.ini DESTINATION lib/kel/modules COMPONENT agent)
endfunction()
