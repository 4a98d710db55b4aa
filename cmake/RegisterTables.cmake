# Turns the register tables of data/registers/*.txt into a header of constant arrays. The build stops on a wrong count.
#
# A file holds one table:
#   # free comment
#   table g_QuartzInit        name of the array
#   entries 46                rows, delays included
#   0x3003 0x01               address and value
#   delay 20                  milliseconds
#   0x3010 0x21 unknown       a row whose true value is not known; it repeats a row that has been written already
function(kov_register_tables out_header)
    file(GLOB files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/data/registers/*.txt)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${files})
    set(text "// Made from data/registers by cmake/RegisterTables.cmake. Do not edit.\n#pragma once\n#include \"sensors/RegisterTable.h\"\n\n")
    set(seen "")  # over all tables: a mode table may repeat a row of its family's first table
    foreach(file IN LISTS files)
        file(STRINGS ${file} lines)
        set(name "")
        set(count -1)
        set(rows "")
        set(n 0)
        foreach(line IN LISTS lines)
            string(REGEX REPLACE "#.*$" "" line "${line}")
            string(STRIP "${line}" line)
            if(line STREQUAL "")
                continue()
            elseif(line MATCHES "^table +([A-Za-z_0-9]+)$")
                set(name ${CMAKE_MATCH_1})
            elseif(line MATCHES "^entries +([0-9]+)$")
                set(count ${CMAKE_MATCH_1})
            elseif(line MATCHES "^delay +([0-9]+)$")
                string(APPEND rows "    { 0xFFFF, ${CMAKE_MATCH_1} },\n")
                math(EXPR n "${n} + 1")
            elseif(line MATCHES "^(0x[0-9A-Fa-f]+) +(0x[0-9A-Fa-f]+)( +unknown)?$")
                set(row "${CMAKE_MATCH_1} ${CMAKE_MATCH_2}")
                if(NOT "${CMAKE_MATCH_3}" STREQUAL "" AND NOT "${row}" IN_LIST seen)
                    message(FATAL_ERROR "${file}: unknown row '${row}' does not repeat an earlier row")
                endif()
                list(APPEND seen "${row}")
                string(APPEND rows "    { ${CMAKE_MATCH_1}, ${CMAKE_MATCH_2} },\n")
                math(EXPR n "${n} + 1")
            else()
                message(FATAL_ERROR "${file}: cannot read '${line}'. A row is 'address value [unknown]' or 'delay ms'.")
            endif()
        endforeach()
        if(NOT n EQUAL count)
            message(FATAL_ERROR "${file}: ${n} rows, but 'entries' says ${count}")
        endif()
        string(APPEND text "inline constexpr RegEntry ${name}[${count}] = {\n${rows}};\n\n")
    endforeach()
    file(GENERATE OUTPUT ${out_header} CONTENT "${text}")
endfunction()
