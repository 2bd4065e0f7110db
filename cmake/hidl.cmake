# Proxies and stubs from the .hal and .aidl files, made at build time as the handset's build does.

find_program(HIDL_GEN hidl-gen REQUIRED)
find_program(AIDL aidl REQUIRED)

# bthal_hidl(TARGET ROOT PREFIX SUBDIR PACKAGE@VERSION)
# Adds the sources generated from ROOT/SUBDIR/VERSION/*.hal to TARGET. PREFIX is the package prefix
# that stands for ROOT.
function(bthal_hidl target root prefix package version)
  string(REPLACE "${prefix}." "" sub ${package})
  string(REPLACE "." "/" sub ${sub})
  string(REPLACE "." "/" package_dir ${package})
  set(hal_dir ${root}/${sub}/${version})
  file(GLOB hal_files CONFIGURE_DEPENDS ${hal_dir}/*.hal)
  set(out ${CMAKE_BINARY_DIR}/generated/hidl)
  set(out_dir ${out}/${package_dir}/${version})

  set(headers)
  set(sources)
  foreach(hal ${hal_files})
    get_filename_component(name ${hal} NAME_WE)
    if(name STREQUAL "types")
      list(APPEND headers ${out_dir}/types.h ${out_dir}/hwtypes.h)
      list(APPEND sources ${out_dir}/types.cpp)
    else()
      string(SUBSTRING ${name} 1 -1 base)
      list(APPEND headers ${out_dir}/${name}.h ${out_dir}/IHw${base}.h ${out_dir}/BnHw${base}.h
           ${out_dir}/BpHw${base}.h ${out_dir}/Bs${base}.h)
      list(APPEND sources ${out_dir}/${base}All.cpp)
    endif()
  endforeach()

  set(interfaces ${CMAKE_SOURCE_DIR}/interfaces)
  set(arguments -R -p ${CMAKE_SOURCE_DIR} -o ${out} -r android.hardware:${interfaces}/hardware
      -r android.hidl:${interfaces}/hidl -r hardware.nuvexa:${interfaces}/nuvexa)
  set(ahead ${interfaces}/run_ahead.txt)
  if(NOT root MATCHES "^${interfaces}")
    list(APPEND arguments -r ${prefix}:${root})
    set(ahead ${root}/run_ahead.txt)
  endif()
  add_custom_command(
    OUTPUT ${headers} ${sources}
    COMMAND ${HIDL_GEN} -L c++-headers ${arguments} ${package}@${version}
    COMMAND ${HIDL_GEN} -L c++-sources ${arguments} ${package}@${version}
    COMMAND ${CMAKE_COMMAND} -D LIST=${ahead} -D PACKAGE=${package}@${version}
      -D FOLDER=${out_dir} -P ${CMAKE_SOURCE_DIR}/cmake/run_ahead.cmake
    DEPENDS ${hal_files} ${ahead} ${CMAKE_SOURCE_DIR}/cmake/run_ahead.cmake
    COMMENT "hidl-gen ${package}@${version}" VERBATIM)
  target_sources(${target} PRIVATE ${sources} ${headers})
endfunction()

# bthal_aidl(TARGET ROOT NAME…): NAME is the path below ROOT, without ".aidl".
function(bthal_aidl target root)
  set(out ${CMAKE_BINARY_DIR}/generated/aidl)
  set(files)
  set(sources)
  set(headers)
  foreach(name ${ARGN})
    list(APPEND files ${root}/${name}.aidl)
    list(APPEND sources ${out}/${name}.cpp)
    list(APPEND headers ${out}/include/aidl/${name}.h)
  endforeach()
  add_custom_command(
    OUTPUT ${sources} ${headers}
    COMMAND ${AIDL} --lang=ndk --structured -I ${root} -h ${out}/include -o ${out} ${files}
    DEPENDS ${files}
    COMMENT "aidl ${root}" VERBATIM)
  target_sources(${target} PRIVATE ${sources} ${headers})
endfunction()
