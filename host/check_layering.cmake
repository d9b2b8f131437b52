# Fails when a file of host/ includes from above its layer: host/core uses no other host folder,
# and host/ uses nothing of the module, the programs, the simulator, the models or the tests.
#   cmake -DHOST_DIR=<source>/host [-DSTAMP=<file>] -P check_layering.cmake
file(GLOB_RECURSE sources RELATIVE ${HOST_DIR} ${HOST_DIR}/*.h ${HOST_DIR}/*.cc)
set(errors "")
foreach(source IN LISTS sources)
  file(STRINGS ${HOST_DIR}/${source} includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  foreach(line IN LISTS includes)
    if(line MATCHES "\"(h3ccas|programs|sim|models|tests)/" OR
       (source MATCHES "^core/" AND line MATCHES "\"host/" AND NOT line MATCHES "\"host/core/"))
      string(APPEND errors "\n  host/${source}: ${line}")
    endif()
  endforeach()
endforeach()
if(errors)
  message(FATAL_ERROR "Includes against the layering of host/:${errors}")
endif()
if(STAMP)
  file(TOUCH ${STAMP})
endif()
