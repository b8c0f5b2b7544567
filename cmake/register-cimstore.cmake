# Registers CimStore.dll in the build's prefix and makes it the WMI locator there; on the way
# proves that regsvr32 registers its own class and that the WMI takeover can be undone.
include(${CMAKE_CURRENT_LIST_DIR}/WineSteps.cmake)
string(REPLACE "/" "\\" dll_windows "Z:${DLL}")
set(own_key "HKCR\\CLSID\\{B7C3E9A2-5D41-4F6B-8E0A-3C9D2F1A7B64}\\InprocServer32")
set(wmi_keys "HKCR\\CLSID\\{4590F811-1D3A-11D0-891F-00AA004B2E24}\\InprocServer32"
             "HKCR\\CLSID\\{CB8555CC-9128-11D1-AD9B-00C04FD8FDFF}\\InprocServer32")

wine_step(regsvr32 /s ${dll_windows})
wine_expect_server("${own_key}" "CimStore\\.dll")
wine_step(regsvr32 /s /n /i:wmi ${dll_windows})
foreach(key ${wmi_keys})
    wine_expect_server("${key}" "CimStore\\.dll")
endforeach()
wine_step(regsvr32 /s /u /n /i:wmi ${dll_windows})
foreach(key ${wmi_keys})
    wine_expect_server("${key}" "wbemprox\\.dll")
endforeach()
wine_step(regsvr32 /s /n /i:wmi ${dll_windows})
foreach(key ${wmi_keys})
    wine_expect_server("${key}" "CimStore\\.dll")
endforeach()
message(STATUS "CimStore is the WMI locator of the prefix")
