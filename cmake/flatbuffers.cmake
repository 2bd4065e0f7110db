# Code for the tables of FlatBuffers schemas, made at build time.

find_program(FLATC flatc REQUIRED)

# bthal_flatbuffers(TARGET FILE.fbs…): an interface library with FILE_generated.h on its include path.
function(bthal_flatbuffers target)
  set(out ${CMAKE_BINARY_DIR}/generated/flatbuffers)
  set(headers)
  foreach(schema ${ARGN})
    get_filename_component(name ${schema} NAME_WE)
    add_custom_command(OUTPUT ${out}/${name}_generated.h
                       COMMAND ${FLATC} --cpp --scoped-enums -o ${out} ${schema}
                       DEPENDS ${schema} VERBATIM)
    list(APPEND headers ${out}/${name}_generated.h)
  endforeach()
  add_library(${target} INTERFACE ${headers})
  target_sources(${target} INTERFACE ${headers})
  target_include_directories(${target} SYSTEM INTERFACE ${out})
endfunction()
