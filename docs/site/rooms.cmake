# The picture of the rooms as a Graphviz graph on standard error: cmake -P docs/site/rooms.cmake 2>&1 | tred | dot -Tsvg
function(kov_room name)
    cmake_parse_arguments(ROOM "" "IS" "BELOW;SOURCES" ${ARGN})
    string(REPLACE ": " ":\\n" text "${ROOM_IS}")
    string(REPLACE ", " ",\\n" text "${text}")
    string(APPEND GRAPH "    ${name} [label=\"${name}\\n${text}\"]\n")
    foreach(below ${ROOM_BELOW})
        string(APPEND GRAPH "    ${name} -> ${below}\n")
    endforeach()
    set(GRAPH "${GRAPH}" PARENT_SCOPE)
endfunction()
include(${CMAKE_CURRENT_LIST_DIR}/../../src/Rooms.cmake)
message("digraph rooms {
    node [shape=box, style=\"rounded,filled\", fillcolor=\"#eef3f8\", color=\"#5a7690\", fontname=\"DejaVu Sans\", fontsize=11]
    edge [color=\"#5a7690\", arrowsize=0.7]
${GRAPH}}")
