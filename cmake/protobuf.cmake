# Code for protobuf messages, made at build time.

find_package(Protobuf REQUIRED)

# bthal_protobuf(TARGET FILE.proto…): a library with FILE.pb.h on its include path.
function(bthal_protobuf target)
  set(out ${CMAKE_BINARY_DIR}/generated/protobuf)
  file(MAKE_DIRECTORY ${out})
  set(sources)
  foreach(proto ${ARGN})
    get_filename_component(name ${proto} NAME_WE)
    get_filename_component(folder ${proto} DIRECTORY)
    add_custom_command(OUTPUT ${out}/${name}.pb.cc ${out}/${name}.pb.h
                       COMMAND protobuf::protoc --cpp_out=${out} -I ${folder} ${proto}
                       DEPENDS ${proto} VERBATIM)
    list(APPEND sources ${out}/${name}.pb.cc)
  endforeach()
  add_library(${target} STATIC ${sources})
  target_include_directories(${target} SYSTEM PUBLIC ${out})
  target_link_libraries(${target} PUBLIC protobuf::libprotobuf-lite)
endfunction()
