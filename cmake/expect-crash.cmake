# Runs PROGRAM crash under EMULATOR a few times: each run must have started,
# crashed and ended with a failure code.
foreach(run RANGE 1 3)
    execute_process(COMMAND ${EMULATOR} ${PROGRAM} crash RESULT_VARIABLE result OUTPUT_VARIABLE output
                    ERROR_VARIABLE errors)
    if(NOT output MATCHES "crashing now")
        message(FATAL_ERROR "run ${run}: the probe did not start: ${result} ${output} ${errors}")
    endif()
    if(result EQUAL 0)
        message(FATAL_ERROR "run ${run}: a crashing program exited with 0")
    endif()
    message(STATUS "run ${run}: crash reported with exit code ${result}")
endforeach()
