# ferry_library(<name> [DEPS <targets>...])
# Builds the folder's sources (*.cpp, *.c) into one static library named after
# the folder. Public headers are included as "<folder>/<header>.h" from the
# project root.
function(ferry_library name)
  cmake_parse_arguments(FL "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.c)
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${FL_DEPS})
endfunction()
