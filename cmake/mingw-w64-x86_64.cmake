# Cross toolchain for the Windows target: mingw-w64 with posix threads, static runtime.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(_triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_triple}-g++-posix)
set(CMAKE_RC_COMPILER ${_triple}-windres)
set(CMAKE_AR ${_triple}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${_triple}-ranlib CACHE FILEPATH "")

# The dependency prefix (log4cxx, APR, expat) is searched like the system root.
set(CMAKE_FIND_ROOT_PATH /usr/${_triple} ${KVNXST_DEPS_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Without -static the binaries need libwinpthread-1.dll, libstdc++-6.dll and libgcc_s.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# Programs built during the build (code generators) run under Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh --root=${CMAKE_BINARY_DIR})
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KVNXST_DEPS_PREFIX)
