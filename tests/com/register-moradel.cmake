# Registers Moradel.dll in the build's prefix with regsvr32 and checks that its class is there.
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/WineSteps.cmake)
string(REPLACE "/" "\\" dll_windows "Z:${DLL}")
wine_step(regsvr32 /s ${dll_windows})
wine_expect_server("HKCR\\CLSID\\{285D8D08-587F-45E5-BCAB-750CBDB61238}\\InprocServer32" "Moradel\\.dll")
message(STATUS "Moradel.dll is registered in the prefix")
