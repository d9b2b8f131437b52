# Fails when a source file includes from above its layer. Dependencies point down only:
# programs -> module -> host, and host/core uses no other host folder.
#   host/core          only host/core
#   host/              nothing of the module, the programs, the simulator, the models or the tests
#   h3ccas/, models/   nothing of the programs, the simulator or the tests
#   cmake -DSOURCE_DIR=<checkout> [-DSTAMP=<file>] -P host/check_layering.cmake
set(errors "")
foreach(dir host h3ccas models)
  file(GLOB_RECURSE sources RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/${dir}/*.h
       ${SOURCE_DIR}/${dir}/*.cc)
  foreach(source IN LISTS sources)
    file(STRINGS ${SOURCE_DIR}/${source} includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
    foreach(line IN LISTS includes)
      if(line MATCHES "\"(programs|sim|tests)/" OR
         (source MATCHES "^host/" AND line MATCHES "\"(h3ccas|models)/") OR
         (source MATCHES "^host/core/" AND line MATCHES "\"host/" AND
          NOT line MATCHES "\"host/core/"))
        string(APPEND errors "\n  ${source}: ${line}")
      endif()
    endforeach()
  endforeach()
endforeach()
if(errors)
  message(FATAL_ERROR "Includes against the layering:${errors}")
endif()
if(STAMP)
  file(TOUCH ${STAMP})
endif()
