# Builds with sanitizers are built often and never shipped: there the C++ library's headers, most of what a file takes to
# compile, are compiled once for all. The other builds see to it that each file of daemon, base libraries, lab and receiver
# includes what it needs.
#   add_precompiled(NAME LIBRARIES... HEADERS...)   the headers, as the users of these libraries compile them
#   use_precompiled(TARGET NAME)
function(add_precompiled name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LIBRARIES;HEADERS")
  set(empty ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  file(GENERATE OUTPUT ${empty} CONTENT "")
  add_library(${name} OBJECT ${empty})
  target_link_libraries(${name} PRIVATE project_warnings ${arg_LIBRARIES})
  target_precompile_headers(${name} PRIVATE ${arg_HEADERS})
endfunction()

function(use_precompiled target name)
  if(TARGET ${name})
    target_precompile_headers(${target} REUSE_FROM ${name})
  endif()
endfunction()

if(TELEMETRY_SANITIZE OR TELEMETRY_FUZZ)
  # A ccache that is in use may keep what comes of them.
  if(CMAKE_CXX_COMPILER_LAUNCHER MATCHES "ccache")
    list(PREPEND CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-fpch-preprocess)
  endif()
  add_precompiled(precompiled HEADERS <algorithm> <array> <functional> <map> <memory> <string> <vector>)
  find_program(LLD ld.lld)
  if(LLD)
    add_link_options(-fuse-ld=lld)
  endif()
endif()
