# cmake -DNM=nm -DLIBRARY=libNoxel-GLESv3.so -P check_exports.cmake
#
# Checks that the library exports its interface and nothing else.
set(expected
    KRTimeDiff KRTimeNow KRTimerElapsed KRTimerReset KRTimerStart KRTimerStop
    Noxel_GetVersion Noxel_Initialize Noxel_InitializeWithWindow Noxel_ProcessFrame Noxel_Release Noxel_SetParameter
    pauseWatch resetWatches startWatch stopWatch)
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^ \n]+\n" lines "${symbols}")
list(TRANSFORM lines STRIP)
list(SORT lines)
if(NOT lines STREQUAL expected)
  message(FATAL_ERROR "exported: ${lines}\nexpected: ${expected}")
endif()
