# Lets generated proxies send some calls without waiting for their answers.
# usage: cmake -D LIST=FILE -D PACKAGE=NAME@VERSION -D FOLDER=GENERATED -P run_ahead.cmake
# LIST names the methods, one a line, as NAME@VERSION::IInterface.method; # begins a comment. Those
# of other packages are left alone. A method that is not there, has a result or is oneway is an error.

file(STRINGS ${LIST} methods REGEX "^${PACKAGE}::")
foreach(line ${methods})
  if(NOT line MATCHES "^[^:]+::I([A-Za-z0-9]+)\\.([A-Za-z0-9_]+)$")
    message(FATAL_ERROR "${LIST}: no NAME@VERSION::IInterface.method: ${line}")
  endif()
  set(base ${CMAKE_MATCH_1})
  set(method ${CMAKE_MATCH_2})
  set(file ${FOLDER}/${base}All.cpp)
  file(READ ${file} source)
  string(FIND "${source}" "\n::android::hardware::Return<void> BpHw${base}::_hidl_${method}(" begin)
  if(begin EQUAL -1)
    message(FATAL_ERROR "${LIST}: ${line} is no method without results")
  endif()
  string(SUBSTRING "${source}" ${begin} -1 function)
  string(FIND "${function}" "\n}\n" length)
  string(SUBSTRING "${function}" 0 ${length} function)
  if(function MATCHES "_hidl_cb")
    message(FATAL_ERROR "${LIST}: ${line} has results")
  endif()
  string(REGEX REPLACE "transact\\(([0-9]+) /\\* ${method} \\*/, _hidl_data, &_hidl_reply\\)"
         "transactAhead(\\1, \"${method}\", _hidl_data, &_hidl_reply)" changed "${function}")
  if(changed STREQUAL function)
    message(FATAL_ERROR "${LIST}: ${line} has no answer that it could run ahead of")
  endif()
  string(REPLACE "${function}" "${changed}" source "${source}")
  file(WRITE ${file} "${source}")
endforeach()
