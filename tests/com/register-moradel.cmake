# Registers Moradel.dll in the build's prefix with regsvr32 and checks that its class is there.
string(REPLACE "/" "\\" dll_windows "Z:${DLL}")
execute_process(COMMAND ${EMULATOR} regsvr32 /s ${dll_windows} RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "regsvr32 ${dll_windows} failed: ${result}")
endif()
execute_process(COMMAND ${EMULATOR} reg query "HKCR\\CLSID\\{285D8D08-587F-45E5-BCAB-750CBDB61238}\\InprocServer32" /ve
                OUTPUT_VARIABLE output ERROR_QUIET)
if(NOT output MATCHES "Moradel\\.dll")
    message(FATAL_ERROR "Moradel.dll is not the handler's server: ${output}")
endif()
message(STATUS "Moradel.dll is registered in the prefix")
