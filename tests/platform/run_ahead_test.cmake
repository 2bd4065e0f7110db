# A list that names a method which cannot run ahead of its answer is refused, with the reason.
# usage: cmake -D SCRIPT=run_ahead.cmake -D FOLDER=GENERATED -P run_ahead_test.cmake
set(list ${CMAKE_CURRENT_BINARY_DIR}/run_ahead_test.txt)
function(refused method reason)
  file(WRITE ${list} "test.platform@1.0::${method}\n")
  execute_process(COMMAND ${CMAKE_COMMAND} -D LIST=${list} -D PACKAGE=test.platform@1.0
                          -D FOLDER=${FOLDER} -P ${SCRIPT}
                  RESULT_VARIABLE status ERROR_VARIABLE error)
  string(REGEX REPLACE "[ \n]+" " " error "${error}")
  if(status EQUAL 0 OR NOT error MATCHES "${reason}")
    message(FATAL_ERROR "${method}: ${status}, ${error}")
  endif()
endfunction()
refused(ITest.echo "has results")
refused(ITest.deaths "is no method without results")
refused(ITest.push "has no answer")
refused(ICallback.absent "is no method without results")
refused(ICallback "no NAME@VERSION::IInterface.method")
file(REMOVE ${list})
