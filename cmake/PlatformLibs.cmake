# Target `platform_libs`: libubox, libubus, libuci and libblobmsg_json, from the system where it has them all and
# otherwise from hostlibs/. Their headers count as system headers.
add_library(platform_libs INTERFACE)

find_path(PLATFORM_LIBS_INCLUDE NAMES libubus.h)
find_path(PLATFORM_LIBS_UBOX_INCLUDE NAMES libubox/uloop.h)
find_path(PLATFORM_LIBS_UCI_INCLUDE NAMES uci.h)
set(PLATFORM_LIBS_FOUND ON)
if(NOT PLATFORM_LIBS_INCLUDE OR NOT PLATFORM_LIBS_UBOX_INCLUDE OR NOT PLATFORM_LIBS_UCI_INCLUDE)
  set(PLATFORM_LIBS_FOUND OFF)
endif()
foreach(lib ubox ubus uci blobmsg_json)
  find_library(PLATFORM_LIB_${lib} NAMES ${lib})
  if(NOT PLATFORM_LIB_${lib})
    set(PLATFORM_LIBS_FOUND OFF)
  endif()
endforeach()

if(TELEMETRY_HOSTLIBS STREQUAL "ON" OR (TELEMETRY_HOSTLIBS STREQUAL "AUTO" AND NOT PLATFORM_LIBS_FOUND))
  set(TELEMETRY_USE_HOSTLIBS ON)
  message(STATUS "base libraries: hostlibs/")
  add_subdirectory(hostlibs)
  target_link_libraries(platform_libs INTERFACE ubus uci blobmsg_json ubox)
elseif(PLATFORM_LIBS_FOUND)
  set(TELEMETRY_USE_HOSTLIBS OFF)
  message(STATUS "base libraries: the system's")
  target_include_directories(platform_libs SYSTEM INTERFACE ${PLATFORM_LIBS_INCLUDE} ${PLATFORM_LIBS_UBOX_INCLUDE}
                             ${PLATFORM_LIBS_UCI_INCLUDE})
  target_link_libraries(platform_libs INTERFACE ${PLATFORM_LIB_ubus} ${PLATFORM_LIB_uci}
                        ${PLATFORM_LIB_blobmsg_json} ${PLATFORM_LIB_ubox})
else()
  message(FATAL_ERROR "libubox, libubus, libuci or libblobmsg_json is missing and TELEMETRY_HOSTLIBS is OFF")
endif()
