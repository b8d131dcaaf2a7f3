# Refuses an include that points at a room outside the list, or up within a room that has inner folders. Run by every
# room's build: -DROOM -DSOURCE_DIR.
cmake_minimum_required(VERSION 3.25)
include("${SOURCE_DIR}/cmake/rooms.cmake")
file(GLOB room_folders RELATIVE "${SOURCE_DIR}/src" "${SOURCE_DIR}/src/*")
file(GLOB_RECURSE files RELATIVE "${SOURCE_DIR}/src/${ROOM}" "${SOURCE_DIR}/src/${ROOM}/*.h" "${SOURCE_DIR}/src/${ROOM}/*.cpp")

# A room may be let into one inner folder of another: "room/folder" in its list.

# The inner folder of a file of this room, "" for the room's own level.
function(inner_folder path result)
  set(${result} "" PARENT_SCOPE)
  if(path MATCHES "^([a-z_]+)/" AND CMAKE_MATCH_1 IN_LIST inner_${ROOM})
    set(${result} "${CMAKE_MATCH_1}" PARENT_SCOPE)
  endif()
endfunction()

foreach(file IN LISTS files)
  inner_folder("${file}" from)
  file(STRINGS "${SOURCE_DIR}/src/${ROOM}/${file}" lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "\"([a-z]+)/([^\"]*)\"")
      continue()
    endif()
    set(target "${CMAKE_MATCH_1}")
    set(path "${CMAKE_MATCH_2}")
    if(NOT target STREQUAL ROOM)
      string(REGEX MATCH "^[a-z_]+" inner "${path}")
      if(target IN_LIST room_folders AND NOT target IN_LIST may_include_${ROOM} AND
         NOT "${target}/${inner}" IN_LIST may_include_${ROOM})
        message(FATAL_ERROR "${file}: room '${ROOM}' may not include room '${target}' (cmake/rooms.cmake)")
      endif()
      continue()
    endif()
    inner_folder("${path}" to)
    if(to STREQUAL from OR (to STREQUAL "" AND NOT DEFINED may_include_${ROOM}_own) OR
       (from STREQUAL "" AND to IN_LIST may_include_${ROOM}_own) OR to IN_LIST may_include_${ROOM}_${from})
      continue()
    endif()
    message(FATAL_ERROR "src/${ROOM}/${file}: may not include ${ROOM}/${path} (cmake/rooms.cmake)")
  endforeach()
endforeach()
