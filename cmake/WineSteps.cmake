# Steps of the registration fixtures. A Wine program that starts while the prefix's services are
# still coming up can fail once, or hang; each step is tried three times, a minute at most each,
# before the fixture fails.

function(wine_step)
    foreach(attempt RANGE 1 3)
        execute_process(COMMAND ${EMULATOR} ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output
                        ERROR_VARIABLE errors TIMEOUT 60)
        if(result EQUAL 0)
            return()
        endif()
        message(STATUS "attempt ${attempt}: ${ARGN} answered ${result}: ${output} ${errors}")
        execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 1)
    endforeach()
    message(FATAL_ERROR "${ARGN} failed: ${result}")
endfunction()

# The default value of key (a registry path as reg.exe spells it) must match pattern.
function(wine_expect_server key pattern)
    foreach(attempt RANGE 1 3)
        execute_process(COMMAND ${EMULATOR} reg query ${key} /ve OUTPUT_VARIABLE output ERROR_VARIABLE errors
                        TIMEOUT 60)
        if(output MATCHES "${pattern}")
            return()
        endif()
        message(STATUS "attempt ${attempt}: ${key}: ${output} ${errors}")
        execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 1)
    endforeach()
    message(FATAL_ERROR "${key}: expected ${pattern}, found: ${output}")
endfunction()
