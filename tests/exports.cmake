# Fails when libdatabase.so exports anything but the library's own API:
# instantiations of the standard library's or Qt's templates (other than the
# specified QList<FieldValue>) must stay inside. Run by CTest with
# -DLIBRARY=<path to the library>.
execute_process(COMMAND nm -DC --defined-only ${LIBRARY} OUTPUT_VARIABLE symbols RESULT_VARIABLE failed)
if(failed)
    message(FATAL_ERROR "nm could not read ${LIBRARY}")
endif()
string(REPLACE "\n" ";" symbols "${symbols}")
set(unexpected "")
set(count 0)
foreach(line IN LISTS symbols)
    string(REGEX REPLACE "^[0-9a-f]+ [A-Za-z] " "" name "${line}")
    if(name STREQUAL "")
        continue()
    endif()
    math(EXPR count "${count} + 1")
    if(name MATCHES "^(void |bool |int )?(std::|__gnu_cxx::|QtPrivate::|QMetaType::|QHash<|QMap<|QSet<|QVector<|QSharedPointer<)"
       OR name MATCHES "^guard variable for (std|Qt|QMetaType)"
       OR (name MATCHES "^(typeinfo|typeinfo name|vtable) for (std::|Qt[^I])")
       OR (name MATCHES "^QList<" AND NOT name MATCHES "^QList<FieldValue>"))
        list(APPEND unexpected "${name}")
    endif()
endforeach()
if(count LESS 100)
    message(FATAL_ERROR "only ${count} symbols exported: the library's API is missing")
endif()
if(unexpected)
    list(LENGTH unexpected n)
    list(SUBLIST unexpected 0 10 shown)
    string(REPLACE ";" "\n  " shown "${shown}")
    message(FATAL_ERROR "${n} unexpected exported symbols, for instance:\n  ${shown}")
endif()
message(STATUS "${count} exported symbols, all the library's own")
