# Wine as the emulator of every test, and the build's own Wine prefix.
set(WINE_LOADER /usr/lib/wine/wine64 CACHE FILEPATH "Wine loader")
set(WINE_SERVER /usr/lib/wine/wineserver CACHE FILEPATH "Wine server")
set(WINE_PREFIX ${CMAKE_BINARY_DIR}/wineprefix)

configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run.sh.in ${CMAKE_BINARY_DIR}/wine-run @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                                WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)

set(WINE_PREFIX_STAMP ${WINE_PREFIX}/.moradel-ready)
add_custom_command(
    OUTPUT ${WINE_PREFIX_STAMP}
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/make-prefix.sh ${WINE_PREFIX} ${WINE_LOADER} ${WINE_SERVER}
    COMMENT "Preparing the Wine prefix"
    VERBATIM)
add_custom_target(wineprefix ALL DEPENDS ${WINE_PREFIX_STAMP})
