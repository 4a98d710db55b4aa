# Turns the register tables of data/registers/*.txt into a header of constant arrays. The build stops on anything else than what
# follows, and on a wrong count.
#
# A file holds one table:
#   # free comment
#   table g_QuartzInit        name of the array
#   entries 46                rows, delays included
#   0x3003 0x01               address and value
#   delay 20                  milliseconds
#   0x3010 0x21 unknown       a row whose true value is not known; it repeats a row that has been written already

# One table. `seen`: rows of earlier tables, as "address value", in and out. Refused, it leaves `error`, else `name`, `count` and
# `rows` in C++.
function(kov_read_register_table text)
    set(name "")
    set(count "")
    set(rows "")
    set(n 0)
    set(error "")
    set(digit "[0-9A-Fa-f]")
    set(word "0x${digit}${digit}?${digit}?${digit}?")
    set(number "(0|[1-9][0-9]?[0-9]?[0-9]?[0-9]?)")  # a leading 0 would be octal in C++
    string(REGEX REPLACE "#[^\n]*" "" text "${text}")
    string(REPLACE "\n" ";" lines "${text}")
    foreach(line IN LISTS lines)
        string(STRIP "${line}" line)
        if(line STREQUAL "")
            continue()
        elseif(line MATCHES "^table +([A-Za-z_][A-Za-z_0-9]*)$" AND name STREQUAL "")
            set(name ${CMAKE_MATCH_1})
        elseif(line MATCHES "^entries +${number}$" AND count STREQUAL "")
            set(count ${CMAKE_MATCH_1})
        elseif(line MATCHES "^delay +${number}$" AND NOT CMAKE_MATCH_1 GREATER 65535)
            string(APPEND rows "    { 0xFFFF, ${CMAKE_MATCH_1} },\n")
            math(EXPR n "${n} + 1")
        elseif(line MATCHES "^0x[Ff][Ff][Ff][Ff] ")
            set(error "'${line}' would be a delay")
            break()
        elseif(line MATCHES "^(${word}) +(${word})( +unknown)?$")
            set(row "${CMAKE_MATCH_1} ${CMAKE_MATCH_2}")
            if(NOT "${CMAKE_MATCH_3}" STREQUAL "" AND NOT "${row}" IN_LIST seen)
                set(error "unknown row '${row}' does not repeat an earlier row")
                break()
            endif()
            list(APPEND seen "${row}")
            string(REPLACE " " ", " row "${row}")
            string(APPEND rows "    { ${row} },\n")
            math(EXPR n "${n} + 1")
        else()
            set(error "cannot read '${line}'. A row is 'address value [unknown]' or 'delay ms'.")
            break()
        endif()
    endforeach()
    if(error STREQUAL "" AND name STREQUAL "")
        set(error "no 'table'")
    elseif(error STREQUAL "" AND (n EQUAL 0 OR NOT n STREQUAL count))
        set(error "${n} rows, but 'entries' says '${count}'")
    endif()
    foreach(result name count rows seen error)
        set(${result} "${${result}}" PARENT_SCOPE)
    endforeach()
endfunction()

function(kov_register_tables out_header)
    file(GLOB files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/data/registers/*.txt)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${files})
    set(header "// Made from data/registers by cmake/RegisterTables.cmake. Do not edit.\n#pragma once\n#include \"sensors/RegisterTable.h\"\n\n")
    set(seen "")  # over all tables: a mode table may repeat a row of its family's first table
    foreach(file IN LISTS files)
        file(READ ${file} text)
        kov_read_register_table("${text}")
        if(NOT error STREQUAL "")
            message(FATAL_ERROR "${file}: ${error}")
        endif()
        string(APPEND header "inline constexpr RegEntry ${name}[${count}] = {\n${rows}};\n\n")
    endforeach()
    file(GENERATE OUTPUT ${out_header} CONTENT "${header}")
endfunction()
