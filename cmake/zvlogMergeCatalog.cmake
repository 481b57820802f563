# cmake -DROOT=<catalog text> -DSOURCES=<entry files, |-separated>
#       -DOUTPUT=<file> -P zvlogMergeCatalog.cmake
# Writes the catalog ROOT with the entries of every SOURCES file added before
# the closing brace of its table.
file(READ ${ROOT} catalog)
string(FIND "${catalog}" "}" end REVERSE)
if(end LESS 0)
  message(FATAL_ERROR "${ROOT} is not a catalog: no closing brace")
endif()
string(SUBSTRING "${catalog}" 0 ${end} merged)
string(REPLACE "|" ";" SOURCES "${SOURCES}")
foreach(source ${SOURCES})
  file(READ ${source} entries)
  string(APPEND merged "\n    // ${source}\n${entries}\n")
endforeach()
string(APPEND merged "}\n")
file(WRITE ${OUTPUT}.new "${merged}")
file(COPY_FILE ${OUTPUT}.new ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.new)
